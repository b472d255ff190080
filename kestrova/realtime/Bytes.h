#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace kestrova {

using Bytes = std::vector<std::uint8_t>;
/// Somebody else's bytes; good for as long as theirs are.
using ByteView = std::span<const std::uint8_t>;

inline ByteView bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}
inline std::string_view textOf(ByteView bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace kestrova
