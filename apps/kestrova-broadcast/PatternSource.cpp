#include <kestrova/platform/linux/capture/TestPicture.h>

#include <libyuv/convert_argb.h>

#include "ScreenSource.h"
#include <chrono>
#include <vector>

namespace kestrova::broadcast {
namespace {

class PatternSource final : public ScreenSource {
public:
  PatternSource(int width, int height)
      : _picture(width, height, "Shared Screen"),
        _planes(width, height),
        _pixels(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4) {}

  std::optional<Picture> take() override {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    _picture.draw(_planes, ms, _count++);
    const auto view = _planes.i420();
    const int stride = view.width * 4;
    libyuv::I420ToARGB(view.y, view.strideY, view.u, view.strideU, view.v, view.strideV,
                       _pixels.data(), stride, view.width, view.height);
    return Picture{.view = {_pixels.data(), stride, view.width, view.height}};
  }

private:
  const TestPicture _picture;
  I420Buffer _planes;
  std::vector<std::uint8_t> _pixels;
  std::int64_t _count = 0;
};

}  // namespace

std::unique_ptr<ScreenSource> makePatternSource(int width, int height) {
  return std::make_unique<PatternSource>(width, height);
}

}  // namespace kestrova::broadcast
