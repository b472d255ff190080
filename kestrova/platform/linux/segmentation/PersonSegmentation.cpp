#include <kestrova/platform/linux/segmentation/MaskSmoothing.h>
#include <kestrova/platform/linux/segmentation/ModelFile.h>
#include <kestrova/platform/linux/segmentation/Network.h>
#include <kestrova/platform/linux/segmentation/PersonSegmentation.h>

#include <libyuv.h>

#include <cstdint>
#include <vector>

namespace kestrova {
namespace {

using segmentation::MaskSmoothing;
using segmentation::Network;

std::size_t count(int width, int height) {
  return static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
}

class SelfieSegmentation final : public VNImageRequestHandler {
public:
  explicit SelfieSegmentation(const segmentation::Model& model)
      : _network(model), _smoothing(_network.width(), _network.height()) {
    const auto pixels = count(_network.width(), _network.height());
    _planes.resize(pixels + 2 * count(chromaWidth(), chromaHeight()));
    _colours.resize(3 * pixels);
  }

  MaskView perform(const VNGeneratePersonSegmentationRequest& request,
                   const VideoFrameBuffer& picture) override {
    if (request.outputPixelFormat != "L008")
      throw PersonSegmentationError("there are masks of the format L008 only");
    if (!shrink(picture)) throw PersonSegmentationError("the picture has no pixels");
    fillInput();
    try {
      return _smoothing.take(_network.run());
    } catch (const std::exception& error) {
      throw PersonSegmentationError(error.what());
    }
  }

private:
  int chromaWidth() const { return (_network.width() + 1) / 2; }
  int chromaHeight() const { return (_network.height() + 1) / 2; }

  /// To the network's size, as red, green and blue.
  bool shrink(const VideoFrameBuffer& picture) {
    const int width = _network.width();
    const int height = _network.height();
    auto* y = _planes.data();
    auto* u = y + count(width, height);
    auto* v = u + count(chromaWidth(), chromaHeight());
    switch (picture.format()) {
      case PixelFormat::bgra:
        return shrink(picture.bgra());
      case PixelFormat::nv12:
        if (!shrink(picture.nv12(), y, u)) return false;
        libyuv::NV12ToRAW(y, width, u, 2 * chromaWidth(), _colours.data(), 3 * width, width,
                          height);
        return true;
      case PixelFormat::i420:
        break;
    }
    const auto from = picture.i420();
    if (!isComplete(from)) return false;
    libyuv::I420Scale(from.y, from.strideY, from.u, from.strideU, from.v, from.strideV, from.width,
                      from.height, y, width, u, chromaWidth(), v, chromaWidth(), width, height,
                      libyuv::kFilterBox);
    // What libyuv calls RAW begins with red.
    libyuv::I420ToRAW(y, width, u, chromaWidth(), v, chromaWidth(), _colours.data(), 3 * width,
                      width, height);
    return true;
  }

  bool shrink(const NV12View& from, std::uint8_t* y, std::uint8_t* uv) {
    if (!isComplete(from)) return false;
    return libyuv::NV12Scale(from.y, from.strideY, from.uv, from.strideUV, from.width, from.height,
                             y, _network.width(), uv, 2 * chromaWidth(), _network.width(),
                             _network.height(), libyuv::kFilterBox) == 0;
  }

  bool shrink(const BGRAView& from) {
    if (!isComplete(from)) return false;
    const int width = _network.width();
    _pixels.resize(4 * count(width, _network.height()));
    libyuv::ARGBScale(from.pixels, from.stride, from.width, from.height, _pixels.data(), 4 * width,
                      width, _network.height(), libyuv::kFilterBox);
    libyuv::ARGBToRAW(_pixels.data(), 4 * width, _colours.data(), 3 * width, width,
                      _network.height());
    return true;
  }

  void fillInput() {
    const auto input = _network.input();
    for (std::size_t i = 0; i < input.size(); ++i)
      input[i] = static_cast<float>(_colours[i]) * (1 / 255.0F);
  }

  Network _network;
  MaskSmoothing _smoothing;
  std::vector<std::uint8_t> _planes;   // the picture at the network's size
  std::vector<std::uint8_t> _pixels;   // the same, of a picture in BGRA
  std::vector<std::uint8_t> _colours;  // red, green, blue
};

}  // namespace

std::unique_ptr<VNImageRequestHandler> makeImageRequestHandler() {
  try {
    const auto file = segmentation::readModelFile(segmentation::modelPath());
    return std::make_unique<SelfieSegmentation>(segmentation::readModel(file));
  } catch (const std::exception& error) {
    throw PersonSegmentationError(error.what());
  }
}

}  // namespace kestrova
