#pragma once

#include <kestrova/platform/VideoFrame.h>

#include <cstdint>
#include <span>
#include <vector>

namespace kestrova::broadcast {

/// A picture, encoded.
struct EncodedPicture {
  int width = 0;
  int height = 0;
  std::span<const std::uint8_t> bytes;
};

/// Encodes pictures as JPEG, smaller where that is wanted.
class JpegEncoder {
public:
  /// \param scale 1 at most \throws std::runtime_error
  JpegEncoder(int quality, double scale);
  ~JpegEncoder();
  JpegEncoder(const JpegEncoder&) = delete;
  JpegEncoder& operator=(const JpegEncoder&) = delete;

  /// Valid until the next call. Without bytes for a picture that can't be encoded.
  EncodedPicture encode(BGRAView picture);

private:
  BGRAView scaled(const BGRAView& picture);

  void* const _encoder;
  const int _quality;
  const double _scale;
  std::vector<std::uint8_t> _scaled;
  std::vector<std::uint8_t> _encoded;
};

}  // namespace kestrova::broadcast
