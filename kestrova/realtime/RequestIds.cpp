#include <kestrova/platform/Platform.h>
#include <kestrova/realtime/RequestIds.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string_view>

namespace kestrova {
namespace {

constexpr std::string_view digits = "0123456789abcdefghijklmnopqrstuvwxyz";

std::mt19937_64& engine() {
  static thread_local std::mt19937_64 instance = [] {
    std::random_device device;
    std::seed_seq seed{device(), device(), device(), device()};
    return std::mt19937_64(seed);
  }();
  return instance;
}

std::string base36(std::uint64_t number) {
  std::string text;
  do {
    text.push_back(digits[number % digits.size()]);
    number /= digits.size();
  } while (number > 0);
  std::reverse(text.begin(), text.end());
  return text;
}

}  // namespace

std::string generateRequestId() {
  const auto now = Platform::current()->scheduler->wallClockMs();
  auto id = base36(static_cast<std::uint64_t>(now)) + '-';
  std::uniform_int_distribution<std::size_t> place(0, digits.size() - 1);
  for (int i = 0; i < 8; ++i) id.push_back(digits[place(engine())]);
  return id;
}

double randomFraction() {
  return std::uniform_real_distribution<double>(0, 1)(engine());
}

}  // namespace kestrova
