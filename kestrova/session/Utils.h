#pragma once

#include <kestrova/platform/Imaging.h>

#include <functional>
#include <optional>
#include <string>

namespace kestrova {

struct Utils {
  using ImageHandler = std::function<void(std::optional<Image>)>;

  /// Eight characters, each drawn uniformly from the letters of both cases and the digits.
  static std::string generatePeerId();

  /// Fetches a picture, PNG or JPEG, by a URL of http, https (within 15 s) or file. `completion` is
  /// called once, on the main queue, with the picture or with nothing when there was none.
  static void downloadImage(std::string url, ImageHandler completion);
  /// The picture redrawn at the given size, in pixels; nothing when that is impossible.
  static std::optional<Image> resizeImage(const Image& image, int newHeight, int newWidth);
};

}  // namespace kestrova
