#include <kestrova/platform/linux/imaging/BackgroundBlur.h>
#include <kestrova/platform/linux/imaging/Compositor.h>

#include <libyuv.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace kestrova {
namespace {

bool isComplete(const MaskView& mask) {
  return mask.pixels && mask.width > 0 && mask.height > 0 && mask.stride >= mask.width;
}

bool isPicture(const Image& image) {
  return image.width > 0 && image.height > 0 &&
         image.pixels.size() ==
             4 * static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height);
}

/// The input as I420: as it is, or converted into `room`.
I420View planesOf(const VideoFrameBuffer& input, I420Buffer& room) {
  const auto into = room.i420();
  if (input.format() == PixelFormat::nv12) {
    const auto from = input.nv12();
    if (!kestrova::isComplete(from) || from.width != into.width || from.height != into.height)
      return {};
    libyuv::NV12ToI420(from.y, from.strideY, from.uv, from.strideUV, room.mutableY(), into.strideY,
                       room.mutableU(), into.strideU, room.mutableV(), into.strideV, into.width,
                       into.height);
    return into;
  }
  if (input.format() == PixelFormat::bgra) {
    const auto from = input.bgra();
    if (!kestrova::isComplete(from) || from.width != into.width || from.height != into.height)
      return {};
    libyuv::ARGBToI420(from.pixels, from.stride, room.mutableY(), into.strideY, room.mutableU(),
                       into.strideU, room.mutableV(), into.strideV, into.width, into.height);
    return into;
  }
  const auto from = input.i420();
  return from.width == into.width && from.height == into.height ? from : I420View();
}

class Compositor final : public CIContext {
public:
  bool render(const BlendWithMask& blend, I420Buffer& into) override {
    if (!isComplete(blend.maskImage)) return false;
    // Blending goes pixel by pixel, so the input may lie where the result will.
    const auto input = planesOf(blend.inputImage, into);
    if (!kestrova::isComplete(input)) return false;
    const auto background = blend.backgroundImage
                                ? stretched(blend.backgroundImage, input.width, input.height)
                                : _blur.around(input, blend.maskImage);
    if (!background) return false;
    const auto& mask = stretched(blend.maskImage, input.width, input.height);
    const auto to = into.i420();
    return libyuv::I420Blend(input.y, input.strideY, input.u, input.strideU, input.v, input.strideV,
                             background->y, background->strideY, background->u, background->strideU,
                             background->v, background->strideV, mask.data(), input.width,
                             into.mutableY(), to.strideY, into.mutableU(), to.strideU,
                             into.mutableV(), to.strideV, input.width, input.height) == 0;
  }

private:
  const std::vector<std::uint8_t>& stretched(const MaskView& mask, int width, int height) {
    _mask.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
    libyuv::ScalePlane(mask.pixels, mask.stride, mask.width, mask.height, _mask.data(), width,
                       width, height, libyuv::kFilterBilinear);
    return _mask;
  }

  /// Done once for a background and a size.
  std::optional<I420View> stretched(const std::shared_ptr<const Image>& image, int width,
                                    int height) {
    if (_image == image && _background) {
      const auto there = _background->i420();
      if (there.width == width && there.height == height) return there;
    }
    _background.reset();
    if (!isPicture(*image)) return std::nullopt;
    const auto stride = 4 * static_cast<std::size_t>(width);
    std::vector<std::uint8_t> pixels(stride * static_cast<std::size_t>(height));
    I420Buffer planes(width, height);
    const auto view = planes.i420();
    const int bytes = static_cast<int>(stride);
    if (libyuv::ARGBScale(image->pixels.data(), image->width * 4, image->width, image->height,
                          pixels.data(), bytes, width, height, libyuv::kFilterBox) != 0 ||
        libyuv::ARGBToI420(pixels.data(), bytes, planes.mutableY(), view.strideY, planes.mutableU(),
                           view.strideU, planes.mutableV(), view.strideV, width, height) != 0)
      return std::nullopt;
    _background.emplace(std::move(planes));
    _image = image;
    return _background->i420();
  }

  std::shared_ptr<const Image> _image;  // what _background was made of
  std::optional<I420Buffer> _background;
  std::vector<std::uint8_t> _mask;
  BackgroundBlur _blur;
};

}  // namespace

std::unique_ptr<CIContext> makeCompositor() {
  return std::make_unique<Compositor>();
}

}  // namespace kestrova
