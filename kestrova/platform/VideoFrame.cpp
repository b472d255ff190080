#include <kestrova/platform/VideoFrame.h>

namespace kestrova {

I420Buffer::I420Buffer(int width, int height)
    : _width(width),
      _height(height),
      _offsetU(static_cast<std::size_t>(width) * height),
      _offsetV(_offsetU + static_cast<std::size_t>((width + 1) / 2) * ((height + 1) / 2)),
      _bytes(_offsetV + (_offsetV - _offsetU)) {}

I420View I420Buffer::i420() const {
  const int chroma = (_width + 1) / 2;
  const auto* base = _bytes.data();
  return {base, base + _offsetU, base + _offsetV, _width, chroma, chroma, _width, _height};
}

}  // namespace kestrova
