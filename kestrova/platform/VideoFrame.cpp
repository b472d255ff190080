#include <kestrova/platform/VideoFrame.h>

namespace kestrova {
namespace {

/// Of a plane with half as many columns or rows. Without an overflow for any `side`.
constexpr int halved(int side) {
  return side / 2 + side % 2;
}

constexpr bool hasSize(int width, int height) {
  return width > 0 && height > 0;
}

}  // namespace

bool isComplete(const I420View& view) {
  return view.y && view.u && view.v && hasSize(view.width, view.height) &&
         view.strideY >= view.width && view.strideU >= halved(view.width) &&
         view.strideV >= halved(view.width);
}

bool isComplete(const NV12View& view) {
  return view.y && view.uv && hasSize(view.width, view.height) && view.strideY >= view.width &&
         view.strideUV / 2 >= halved(view.width);
}

bool isComplete(const BGRAView& view) {
  return view.pixels && hasSize(view.width, view.height) && view.stride / 4 >= view.width;
}

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
