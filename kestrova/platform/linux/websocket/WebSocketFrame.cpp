#include <kestrova/platform/linux/websocket/WebSocketFrame.h>

#include <openssl/rand.h>

#include <array>
#include <cstdint>
#include <cstring>

namespace kestrova {
namespace {

using Key = std::array<std::uint8_t, 4>;

/// Keys must not be guessable, else a page's text could be made to look like HTTP to a proxy. One
/// call for many keys, since a call costs more than a small frame.
Key nextKey() {
  thread_local std::array<std::uint8_t, 256> pool;
  thread_local std::size_t used = pool.size();
  if (used == pool.size()) {
    RAND_bytes(pool.data(), static_cast<int>(pool.size()));
    used = 0;
  }
  Key key;
  std::memcpy(key.data(), pool.data() + used, key.size());
  used += key.size();
  return key;
}

}  // namespace

void appendFrame(std::string& out, bool binary, std::string_view payload) {
  constexpr unsigned final = 0x80;
  constexpr unsigned masked = 0x80;
  const std::uint64_t size = payload.size();
  auto put = [&](std::uint64_t byte) { out += static_cast<char>(byte & 0xff); };
  put(final | (binary ? 2u : 1u));
  if (size < 126) {
    put(masked | size);
  } else if (size <= 0xffff) {
    put(masked | 126u);
    put(size >> 8);
    put(size);
  } else {
    put(masked | 127u);
    for (int shift = 56; shift >= 0; shift -= 8) put(size >> shift);
  }
  const auto key = nextKey();
  for (const auto byte : key) put(byte);
  const auto start = out.size();
  out.append(payload);
  char* text = out.data() + start;
  std::uint64_t wide;
  std::memcpy(&wide, key.data(), 4);
  std::memcpy(reinterpret_cast<char*>(&wide) + 4, key.data(), 4);
  std::size_t i = 0;
  for (; i + 8 <= size; i += 8) {
    std::uint64_t word;
    std::memcpy(&word, text + i, 8);
    word ^= wide;
    std::memcpy(text + i, &word, 8);
  }
  for (; i < size; ++i) text[i] = static_cast<char>(text[i] ^ key[i % 4]);
}

}  // namespace kestrova
