#pragma once

#include <kestrova/platform/VideoFrame.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova {

/// A still picture: 8 bits each of blue, green, red and alpha (not premultiplied), row after row
/// from the top, without padding.
struct Image {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> pixels;
};

/// Work on still pictures. Thread-safe; costs tens of ms for a large picture.
class Imaging {
public:
  virtual ~Imaging() = default;
  /// Decodes PNG or JPEG. Nothing for anything else, and for a file that is damaged, cut short or
  /// larger than the implementation allows.
  virtual std::optional<Image> decode(std::string_view file) = 0;
  /// The picture redrawn at another size, in pixels; nothing when either size makes no sense.
  virtual std::optional<Image> resize(const Image& image, int width, int height) = 0;
  /// The picture of a frame, as its pixels lie; nothing for a frame without any.
  virtual std::optional<Image> render(const VideoFrameBuffer& /*frame*/) { return std::nullopt; }
  /// The picture turned clockwise by a multiple of 90 degrees.
  virtual std::optional<Image> rotate(const Image& /*image*/, int /*degrees*/) {
    return std::nullopt;
  }
  /// A JPEG file. \param quality from 0 to 1, the best; alpha is left out
  virtual std::optional<std::string> encodeJpeg(const Image& /*image*/, double /*quality*/) {
    return std::nullopt;
  }
};

}  // namespace kestrova
