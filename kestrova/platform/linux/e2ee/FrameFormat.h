#pragma once

#include <kestrova/platform/linux/e2ee/FrameKeys.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace kestrova::e2ee {

/// The layout of an encrypted frame, as docs/encryption.md has it:
///
///     clear bytes | ciphertext | tag (16) | nonce (12) | key index (1) | length of the trailer (1)
///
/// For H264 everything behind the clear bytes has emulation prevention bytes put in.

inline constexpr std::size_t kTagSize = 16;
inline constexpr std::size_t kNonceSize = 12;
/// Nonce, key index and this length itself.
inline constexpr std::size_t kTrailerSize = kNonceSize + 2;
/// What encryption adds, before emulation prevention.
inline constexpr std::size_t kOverhead = kTagSize + kTrailerSize;

enum class FrameCodec { unknown, opus, vp8, vp9, h264 };
/// \param mimeType such as "video/VP8", in any case
FrameCodec frameCodec(std::string_view mimeType);

/// Which bytes at the start of a frame stay readable.
struct ClearPart {
  std::size_t size = 0;
  /// Where those bytes begin that the tag vouches for; they reach to `size`.
  std::size_t authenticatedFrom = 0;
};
/// Of a frame to be encrypted, or of an encrypted one: the same. Nothing for a frame that this
/// codec can't have.
std::optional<ClearPart> clearPart(FrameCodec codec, ByteView frame);

struct Trailer {
  std::array<std::uint8_t, kNonceSize> nonce{};
  std::uint8_t keyIndex = 0;
};
void writeTrailer(const Trailer& trailer, std::uint8_t* out);
/// Of the part behind the clear bytes. Nothing when it ends otherwise, or is too short.
std::optional<Trailer> readTrailer(ByteView body);

/// Emulation prevention (ITU-T H.264, 7.4.1): a byte 03 is put into `body` wherever the three bytes
/// 00 00 00 to 00 00 03 would stand otherwise; the end of what precedes it counts as well.
class Emulation {
public:
  /// \param before what stands in front of the body
  explicit Emulation(ByteView before);
  /// How many bytes `escape` adds.
  std::size_t added(ByteView body) const;
  /// Writes `body.size() + added(body)` bytes.
  void escape(ByteView body, std::uint8_t* out) const;
  bool isEscaped(ByteView body) const;
  /// Takes them out again. `out` has room for all of `body`. \return how many bytes were written
  std::size_t unescape(ByteView body, std::uint8_t* out) const;

private:
  const std::size_t _zerosBefore;
};

}  // namespace kestrova::e2ee
