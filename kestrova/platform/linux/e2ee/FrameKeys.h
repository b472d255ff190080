#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kestrova::e2ee {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

inline constexpr std::size_t kKeySize = 16;  // AES-128
using FrameKey = std::array<std::uint8_t, kKeySize>;

/// Overwrites what was secret.
void wipe(std::span<std::uint8_t> secret);

/// A key as people share it, and what encrypts frames, which follows from it. Wiped at its end.
struct KeyMaterial {
  KeyMaterial() = default;
  /// Takes tens of milliseconds. \throws std::runtime_error when the cipher library fails
  KeyMaterial(Bytes materialBytes, ByteView salt);
  ~KeyMaterial();
  KeyMaterial(const KeyMaterial&) = delete;
  KeyMaterial& operator=(const KeyMaterial&) = delete;
  KeyMaterial(KeyMaterial&&) = default;
  KeyMaterial& operator=(KeyMaterial&& other) noexcept;

  /// The one behind it, from which this one can't be found. As dear.
  KeyMaterial next(ByteView salt) const;

  Bytes material;
  FrameKey frameKey{};
  std::array<std::uint8_t, 32> nextMaterial{};
};

}  // namespace kestrova::e2ee
