#pragma once

#include <cstdint>
#include <optional>
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
};

}  // namespace kestrova
