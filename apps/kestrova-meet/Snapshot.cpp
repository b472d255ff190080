#include "Snapshot.h"

#include <libyuv.h>
#include <png.h>

#include <cstdint>
#include <stdexcept>
#include <vector>

namespace kestrova::meet {
namespace {

/// The picture as rows of R, G and B, turned by its rotation.
std::vector<std::uint8_t> toRgb(const VideoFrame& frame, int& width, int& height) {
  const auto view = frame.buffer->i420();
  const bool upright = frame.rotation % 180 == 0;
  width = upright ? view.width : view.height;
  height = upright ? view.height : view.width;
  I420Buffer turned(width, height);
  const auto planes = turned.i420();
  libyuv::I420Rotate(view.y, view.strideY, view.u, view.strideU, view.v, view.strideV,
                     turned.mutableY(), planes.strideY, turned.mutableU(), planes.strideU,
                     turned.mutableV(), planes.strideV, view.width, view.height,
                     static_cast<libyuv::RotationMode>(frame.rotation));
  std::vector<std::uint8_t> rgb(static_cast<std::size_t>(width) * height * 3);
  libyuv::I420ToRAW(planes.y, planes.strideY, planes.u, planes.strideU, planes.v, planes.strideV,
                    rgb.data(), width * 3, width, height);
  return rgb;
}

}  // namespace

void writePng(const VideoFrame& frame, const std::filesystem::path& path) {
  int width = 0, height = 0;
  const auto rgb = toRgb(frame, width, height);
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(width);
  image.height = static_cast<png_uint_32>(height);
  image.format = PNG_FORMAT_RGB;
  if (!png_image_write_to_file(&image, path.c_str(), 0, rgb.data(), 0, nullptr))
    throw std::runtime_error("can't write " + path.string() + ": " + image.message);
}

}  // namespace kestrova::meet
