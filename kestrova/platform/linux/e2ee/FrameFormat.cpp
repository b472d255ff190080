#include <kestrova/platform/linux/e2ee/FrameFormat.h>

#include <algorithm>
#include <cctype>
#include <cstring>

namespace kestrova::e2ee {
namespace {

/// RFC 6716, 3.1: the byte that tells how a packet is coded, which media servers look at.
constexpr std::size_t kOpusClear = 1;
/// RFC 6386, 9.1: the frame tag; a key frame has a start code and its size behind it.
constexpr std::size_t kVp8Clear = 3;
constexpr std::size_t kVp8KeyClear = 10;
/// Of the first slice: the byte with the type of the unit, and as much as its first three numbers
/// take at most, by which a receiver finds the parameter sets.
constexpr std::size_t kSliceClear = 5;

constexpr unsigned kUnitType = 0x1F;
constexpr unsigned kLastSliceType = 5;

/// Where the first unit with a slice begins; `frame.size()` without one.
std::size_t firstSlice(ByteView frame) {
  for (std::size_t at = 0; at + 3 < frame.size(); ++at) {
    if (frame[at] != 0 || frame[at + 1] != 0 || frame[at + 2] != 1) continue;
    const unsigned type = frame[at + 3] & kUnitType;
    if (type >= 1 && type <= kLastSliceType) return at + 3;
  }
  return frame.size();
}

std::size_t zerosAtEnd(ByteView bytes) {
  std::size_t zeros = 0;
  while (zeros < 2 && zeros < bytes.size() && bytes[bytes.size() - 1 - zeros] == 0) ++zeros;
  return zeros;
}

/// Two zeros side by side are rare in what was encrypted, and looked for in blocks: written so that
/// compilers do many bytes at once.
constexpr std::size_t kBlock = 256;
bool hasTwoZeros(const std::uint8_t* bytes) {
  std::uint8_t found = 0;
  for (std::size_t i = 0; i < kBlock; ++i)
    found = static_cast<std::uint8_t>(found | ((bytes[i] | bytes[i + 1]) == 0));
  return found != 0;
}

constexpr std::size_t kWord = sizeof(std::uint64_t);
bool hasZero(const std::uint8_t* bytes) {
  std::uint64_t word = 0;
  std::memcpy(&word, bytes, kWord);
  constexpr std::uint64_t ones = 0x0101010101010101;
  return ((word - ones) & ~word & (ones << 7)) != 0;
}

/// How far from `at` there can't be two zeros side by side.
std::size_t plainFrom(ByteView body, std::size_t at) {
  const auto begin = at;
  while (body.size() - at > kBlock && !hasTwoZeros(body.data() + at)) at += kBlock;
  while (body.size() - at >= kWord && !hasZero(body.data() + at)) at += kWord;
  return at - begin;
}

/// What is looked for behind two zeros: a byte that may not stand there, or one that was put in.
enum class Behind { zeros, prevention };

/// Calls `hit(at)` for each such place of `body`. \return whether `hit` never asked to stop
template <Behind kind, class Hit>
bool scan(std::size_t zeros, ByteView body, Hit hit) {
  for (std::size_t at = 0; at < body.size(); ++at) {
    if (zeros == 0) at += plainFrom(body, at);
    if (at == body.size()) break;
    const auto byte = body[at];
    if (zeros == 2 && (kind == Behind::zeros ? byte <= 3 : byte == 3)) {
      if (!hit(at)) return false;
      zeros = 0;
    }
    zeros = byte == 0 ? std::min<std::size_t>(zeros + 1, 2) : 0;
  }
  return true;
}

/// Copies `body` to `out`, with `hit(out, at)` at each of those places, which gives where to go on.
template <Behind kind, class Hit>
std::uint8_t* copyAround(std::size_t zeros, ByteView body, std::uint8_t* out, Hit hit) {
  std::size_t done = 0;
  const auto copyTo = [&](std::size_t end) {
    out = std::copy(body.data() + done, body.data() + end, out);
    done = end;
  };
  scan<kind>(zeros, body, [&](std::size_t at) {
    copyTo(at);
    done = hit(out, at);
    return true;
  });
  copyTo(body.size());
  return out;
}

}  // namespace

FrameCodec frameCodec(std::string_view mimeType) {
  constexpr std::pair<std::string_view, FrameCodec> codecs[] = {{"audio/opus", FrameCodec::opus},
                                                                {"video/vp8", FrameCodec::vp8},
                                                                {"video/vp9", FrameCodec::vp9},
                                                                {"video/h264", FrameCodec::h264}};
  const auto same = [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) == b; };
  for (const auto& [name, codec] : codecs)
    if (std::equal(mimeType.begin(), mimeType.end(), name.begin(), name.end(), same)) return codec;
  return FrameCodec::unknown;
}

std::optional<ClearPart> clearPart(FrameCodec codec, ByteView frame) {
  ClearPart part;
  switch (codec) {
    case FrameCodec::unknown:
      return std::nullopt;
    case FrameCodec::opus:
      part.size = kOpusClear;
      break;
    case FrameCodec::vp8:
      part.size = !frame.empty() && (frame[0] & 1) == 0 ? kVp8KeyClear : kVp8Clear;
      break;
    case FrameCodec::vp9:  // all that a server needs is in front of the frame
      break;
    case FrameCodec::h264:
      part.authenticatedFrom = firstSlice(frame);
      part.size = part.authenticatedFrom + kSliceClear;
      break;
  }
  if (frame.empty() || part.size > frame.size()) return std::nullopt;
  return part;
}

void writeTrailer(const Trailer& trailer, std::uint8_t* out) {
  std::copy(trailer.nonce.begin(), trailer.nonce.end(), out);
  out[kNonceSize] = trailer.keyIndex;
  out[kNonceSize + 1] = kTrailerSize;
}

std::optional<Trailer> readTrailer(ByteView body) {
  if (body.size() < kOverhead || body.back() != kTrailerSize) return std::nullopt;
  const auto bytes = body.last(kTrailerSize);
  Trailer trailer;
  std::copy_n(bytes.begin(), kNonceSize, trailer.nonce.begin());
  trailer.keyIndex = bytes[kNonceSize];
  return trailer;
}

Emulation::Emulation(ByteView before) : _zerosBefore(zerosAtEnd(before)) {}

std::size_t Emulation::added(ByteView body) const {
  std::size_t count = 0;
  scan<Behind::zeros>(_zerosBefore, body, [&](std::size_t) { return ++count > 0; });
  return count;
}

void Emulation::escape(ByteView body, std::uint8_t* out) const {
  copyAround<Behind::zeros>(_zerosBefore, body, out, [](std::uint8_t*& to, std::size_t at) {
    *to++ = 3;
    return at;
  });
}

bool Emulation::isEscaped(ByteView body) const {
  return !scan<Behind::prevention>(_zerosBefore, body, [](std::size_t) { return false; });
}

std::size_t Emulation::unescape(ByteView body, std::uint8_t* out) const {
  const auto* const end = copyAround<Behind::prevention>(
      _zerosBefore, body, out, [](std::uint8_t*, std::size_t at) { return at + 1; });
  return static_cast<std::size_t>(end - out);
}

}  // namespace kestrova::e2ee
