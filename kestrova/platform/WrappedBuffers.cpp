#include <kestrova/platform/WrappedBuffers.h>

#include <cstddef>

namespace kestrova {

ReleaseGuard::~ReleaseGuard() {
  if (!_release) return;
  try {
    _release();
  } catch (...) {  // NOLINT: the picture is gone either way
  }
}

I420View WrappedNV12Buffer::i420() const {
  const int columns = _view.width / 2 + _view.width % 2;
  const int rows = _view.height / 2 + _view.height % 2;
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
