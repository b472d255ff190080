#include <kestrova/tracing/Uuid.h>

#include <unistd.h>

#include <algorithm>
#include <random>
#include <string_view>

namespace kestrova {
namespace {

// What one call of getentropy gives at most: one system call for sixteen identifiers.
constexpr std::size_t entropyBytes = 256;

struct EntropyPool {
  std::array<std::uint8_t, entropyBytes> bytes;
  std::size_t used = entropyBytes;

  void refill() {
    if (getentropy(bytes.data(), bytes.size()) != 0) {
      std::random_device device;
      std::generate(bytes.begin(), bytes.end(),
                    [&] { return static_cast<std::uint8_t>(device()); });
    }
    used = 0;
  }
};

}  // namespace

Uuid Uuid::random() {
  thread_local EntropyPool pool;
  Uuid uuid;
  if (pool.used + uuid._bytes.size() > entropyBytes) pool.refill();
  std::copy_n(pool.bytes.begin() + static_cast<std::ptrdiff_t>(pool.used), uuid._bytes.size(),
              uuid._bytes.begin());
  pool.used += uuid._bytes.size();
  uuid._bytes[6] = (uuid._bytes[6] & 0x0F) | 0x40;
  uuid._bytes[8] = (uuid._bytes[8] & 0x3F) | 0x80;
  return uuid;
}

std::string Uuid::text() const {
  constexpr std::string_view digits = "0123456789abcdef";
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < _bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += digits[_bytes[i] >> 4];
    text += digits[_bytes[i] & 0x0F];
  }
  return text;
}

}  // namespace kestrova
