// Runs a fuzzer's function without libFuzzer: every seed, then seeds that were changed at random,
// the same ones each time. Ends with an error when the process has grown large meanwhile.
//
//   fuzz_… <folder of seeds> [how many changed ones] [which sequence of them]

#include <sys/resource.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

using Input = std::vector<std::uint8_t>;
constexpr long mostKilobytes = 256 * 1024;
constexpr std::size_t longestInput = 8192;

std::vector<Input> seedsOf(const char* folder) {
  std::vector<std::filesystem::path> files;
  for (const auto& file : std::filesystem::directory_iterator(folder)) files.push_back(file);
  std::sort(files.begin(), files.end());
  std::vector<Input> seeds;
  for (const auto& file : files) {
    std::ifstream stream(file, std::ios::binary);
    seeds.emplace_back(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
  }
  return seeds;
}

class Changes {
public:
  Changes(const std::vector<Input>& seeds, std::uint64_t sequence)
      : _seeds(seeds), _random(sequence) {}

  Input next() {
    auto input = _seeds[below(_seeds.size())];
    for (auto times = 1 + below(6); times > 0; --times) change(input);
    if (input.size() > longestInput) input.resize(longestInput);
    return input;
  }

private:
  std::size_t below(std::size_t count) { return _random() % count; }
  std::ptrdiff_t place(const Input& input) {
    return static_cast<std::ptrdiff_t>(below(input.size() + 1));
  }
  std::uint8_t byte() { return static_cast<std::uint8_t>(_random()); }

  void change(Input& input) {
    const auto at = input.begin() + place(input);
    switch (below(5)) {
      case 0:
        if (at != input.end()) *at = byte();
        break;
      case 1:
        if (at != input.end()) *at = static_cast<std::uint8_t>(*at ^ (1U << below(8)));
        break;
      case 2:
        input.erase(at, at + std::min<std::ptrdiff_t>(input.end() - at, 1 + place(input) % 8));
        break;
      case 3:
        input.insert(at, byte());
        break;
      case 4: {  // a piece of another seed
        const auto& other = _seeds[below(_seeds.size())];
        const auto from = place(other);
        const auto to = from + place(Input(other.begin() + from, other.end()));
        input.insert(at, other.begin() + from, other.begin() + to);
        break;
      }
    }
  }

  const std::vector<Input>& _seeds;
  std::mt19937_64 _random;
};

}  // namespace

int main(int count, char** arguments) {
  if (count < 2) {
    std::fprintf(stderr, "usage: %s <folder of seeds> [changed ones] [sequence]\n", arguments[0]);
    return 2;
  }
  const auto seeds = seedsOf(arguments[1]);
  if (seeds.empty()) {
    std::fprintf(stderr, "no seeds in %s\n", arguments[1]);
    return 2;
  }
  const long changed = count > 2 ? std::atol(arguments[2]) : 20'000;
  Changes changes(seeds, count > 3 ? std::strtoull(arguments[3], nullptr, 10) : 1);
  for (const auto& seed : seeds) LLVMFuzzerTestOneInput(seed.data(), seed.size());
  for (long i = 0; i < changed; ++i) {
    const auto input = changes.next();
    LLVMFuzzerTestOneInput(input.data(), input.size());
  }
  rusage used{};
  getrusage(RUSAGE_SELF, &used);
  std::printf("%zu seeds, %ld changed ones, %ld MB at the peak\n", seeds.size(), changed,
              used.ru_maxrss / 1024);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  if (used.ru_maxrss > mostKilobytes) {
    std::fprintf(stderr, "it has grown beyond %ld MB\n", mostKilobytes / 1024);
    return 1;
  }
#endif
}
