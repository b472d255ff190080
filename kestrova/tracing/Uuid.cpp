#include <kestrova/tracing/Uuid.h>

#include <unistd.h>

#include <algorithm>
#include <cstring>
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

/// Goes through all numbers of 64 bits from where it was set, and back to none before the last
/// (the generator SplitMix64).
struct Row {
  std::uint64_t position = 0;

  std::uint64_t next() {
    auto mixed = position += 0x9E3779B97F4A7C15U;
    mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9U;
    mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBU;
    return mixed ^ (mixed >> 31);
  }
};

/// A thread's two, which begin where the system's generator says.
struct Rows {
  std::array<Row, 2> rows;
  bool areSet = false;
};
constinit thread_local Rows threadRows;

}  // namespace

Uuid Uuid::random() {
  thread_local EntropyPool pool;
  Uuid uuid;
  if (pool.used + uuid._bytes.size() > entropyBytes) pool.refill();
  std::copy_n(pool.bytes.begin() + static_cast<std::ptrdiff_t>(pool.used), uuid._bytes.size(),
              uuid._bytes.begin());
  pool.used += uuid._bytes.size();
  uuid.markVersion();
  return uuid;
}

Uuid Uuid::fresh() {
  auto& mine = threadRows;
  if (!mine.areSet) {
    const auto start = random();
    std::memcpy(mine.rows.data(), start._bytes.data(), start._bytes.size());
    mine.areSet = true;
  }
  const std::array<std::uint64_t, 2> drawn = {mine.rows[0].next(), mine.rows[1].next()};
  Uuid uuid;
  std::memcpy(uuid._bytes.data(), drawn.data(), uuid._bytes.size());
  uuid.markVersion();
  return uuid;
}

void Uuid::markVersion() {
  _bytes[6] = (_bytes[6] & 0x0F) | 0x40;
  _bytes[8] = (_bytes[8] & 0x3F) | 0x80;
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
