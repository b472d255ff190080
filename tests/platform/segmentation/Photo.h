#pragma once

#include <kestrova/platform/VideoFrame.h>
#include <kestrova/platform/linux/imaging/LinuxImaging.h>

#include <libyuv.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>

namespace kestrova::test {

/// A photo of a person, at a size of the test's choice.
class Photo {
public:
  /// \throws std::runtime_error when scripts/bootstrap didn't bring it
  Photo(int width, int height) {
    std::ifstream file(KESTROVA_PERSON_PHOTO, std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(file), {});
    const auto imaging = makeImaging();
    const auto whole = imaging->decode(bytes);
    const auto scaled = whole ? imaging->resize(*whole, width, height) : std::nullopt;
    if (!scaled) throw std::runtime_error("no photo in " KESTROVA_PERSON_PHOTO);
    image = *scaled;
  }

  std::shared_ptr<I420Buffer> i420() const {
    auto buffer = std::make_shared<I420Buffer>(image.width, image.height);
    const auto view = buffer->i420();
    libyuv::ARGBToI420(image.pixels.data(), image.width * 4, buffer->mutableY(), view.strideY,
                       buffer->mutableU(), view.strideU, buffer->mutableV(), view.strideV,
                       image.width, image.height);
    return buffer;
  }

  Image image;
};

}  // namespace kestrova::test
