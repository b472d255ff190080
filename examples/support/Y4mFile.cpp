#include "Y4mFile.h"

#include <algorithm>
#include <stdexcept>
#include <string>

namespace recording {

Y4mFile::Y4mFile(const std::filesystem::path& path, int width, int height, int fps)
    : _width(width),
      _height(height),
      _path(path),
      _out(path, std::ios::binary | std::ios::trunc),
      _picture(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 3 / 2, 128) {
  std::fill_n(_picture.begin(), width * height, std::uint8_t{16});
  _out << "YUV4MPEG2 W" << width << " H" << height << " F" << fps << ":1 Ip A1:1 C420mpeg2\n";
  if (!_out) throw std::runtime_error("can't write " + path.string());
}

void Y4mFile::draw(const kestrova::VideoFrame& frame) {
  const auto view = frame.buffer ? frame.buffer->i420() : kestrova::I420View();
  if (!isComplete(view)) return;
  auto* y = _picture.data();
  auto* u = y + static_cast<std::ptrdiff_t>(_width) * _height;
  auto* v = u + static_cast<std::ptrdiff_t>(_width / 2) * (_height / 2);
  const int columns = (view.width + 1) / 2, rows = (view.height + 1) / 2;
  scale({y, _width, _height, view.y, view.strideY, view.width, view.height, 16}, frame.rotation);
  scale({u, _width / 2, _height / 2, view.u, view.strideU, columns, rows, 128}, frame.rotation);
  scale({v, _width / 2, _height / 2, view.v, view.strideV, columns, rows, 128}, frame.rotation);
}

/// By the nearest pixel: quick, and good enough to look at.
void Y4mFile::scale(const Plane& plane, int rotation) {
  const bool lies = rotation % 180 != 0;
  const std::int64_t width = lies ? plane.fromHeight : plane.fromWidth;
  const std::int64_t height = lies ? plane.fromWidth : plane.fromHeight;
  // As large as fits with the same aspect.
  int shownWidth = plane.width, shownHeight = plane.height;
  if (width * plane.height > height * plane.width)
    shownHeight = std::max<int>(1, static_cast<int>(plane.width * height / width));
  else
    shownWidth = std::max<int>(1, static_cast<int>(plane.height * width / height));
  const int left = (plane.width - shownWidth) / 2, top = (plane.height - shownHeight) / 2;

  std::fill_n(plane.to, plane.width * plane.height, plane.black);
  std::vector<int> across(static_cast<std::size_t>(shownWidth));
  for (int x = 0; x < shownWidth; ++x)
    across[static_cast<std::size_t>(x)] = static_cast<int>(x * width / shownWidth);
  for (int row = 0; row < shownHeight; ++row) {
    const auto down = static_cast<int>(row * height / shownHeight);
    auto* to = plane.to + static_cast<std::ptrdiff_t>(top + row) * plane.width + left;
    for (const int x : across) {
      int column = x, line = down;
      if (rotation == 90) column = down, line = plane.fromHeight - 1 - x;
      if (rotation == 180) column = plane.fromWidth - 1 - x, line = plane.fromHeight - 1 - down;
      if (rotation == 270) column = plane.fromWidth - 1 - down, line = x;
      *to++ = plane.from[static_cast<std::ptrdiff_t>(line) * plane.stride + column];
    }
  }
}

void Y4mFile::repeatTo(std::uint64_t length) {
  for (; _length < length; ++_length) {
    _out << "FRAME\n";
    _out.write(reinterpret_cast<const char*>(_picture.data()),
               static_cast<std::streamsize>(_picture.size()));
    if (!_out.flush()) throw std::runtime_error("can't write " + _path.string());
  }
}

}  // namespace recording
