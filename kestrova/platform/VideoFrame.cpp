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

ReleaseGuard::~ReleaseGuard() {
  if (!_release) return;
  try {
    _release();
  } catch (...) {  // NOLINT: the picture is gone either way
  }
}

I420View WrappedNV12Buffer::i420() const {
  const int columns = halved(_view.width);
  const int rows = halved(_view.height);
  const auto plane = static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows);
  std::call_once(_split, [&] {
    _chroma.resize(2 * plane);
    auto* u = _chroma.data();
    auto* v = u + plane;
    for (int row = 0; row < rows; ++row) {
      const auto* pair = _view.uv + static_cast<std::ptrdiff_t>(row) * _view.strideUV;
      for (int column = 0; column < columns; ++column) {
        *u++ = pair[2 * column];
        *v++ = pair[2 * column + 1];
      }
    }
  });
  return {_view.y,     _chroma.data(), _chroma.data() + plane, _view.strideY, columns, columns,
          _view.width, _view.height};
}

}  // namespace kestrova
