#include <kestrova/session/Utils.h>

#include <random>
#include <string_view>

namespace kestrova {

std::string Utils::generatePeerId() {
  constexpr std::string_view alphabet =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  constexpr std::size_t length = 8;
  thread_local std::mt19937_64 source{std::random_device{}()};
  // Rejects what would favour the first letters.
  std::uniform_int_distribution<std::size_t> draw(0, alphabet.size() - 1);
  std::string id;
  while (id.size() < length) id += alphabet[draw(source)];
  return id;
}

}  // namespace kestrova
