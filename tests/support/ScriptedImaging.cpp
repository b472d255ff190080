#include "ScriptedImaging.h"

#include <cstdio>
#include <utility>

namespace kestrova::test {
namespace {

Image plainImage(int width, int height) {
  const auto size = 4 * static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  return {.width = width, .height = height, .pixels = std::vector<std::uint8_t>(size)};
}

std::string sides(int width, int height) {
  return std::to_string(width) + "x" + std::to_string(height);
}

class ScriptedSegmentation final : public VNImageRequestHandler {
public:
  explicit ScriptedSegmentation(std::shared_ptr<ScriptedCompositing> script)
      : _script(std::move(script)) {}
  MaskView perform(const VNGeneratePersonSegmentationRequest& request,
                   const VideoFrameBuffer&) override {
    if (request.outputPixelFormat != "L008" || request.qualityLevel != request.balanced)
      throw PersonSegmentationError("asked for something else");
    if (!_script->failure.empty()) throw PersonSegmentationError(_script->failure);
    if (!_script->hasMask) return {};
    return {.pixels = &_pixel, .stride = 1, .width = 1, .height = 1};
  }

private:
  const std::shared_ptr<ScriptedCompositing> _script;
  std::uint8_t _pixel = 255;
};

class ScriptedContext final : public CIContext {
public:
  explicit ScriptedContext(std::shared_ptr<ScriptedCompositing> script)
      : _script(std::move(script)) {}
  bool render(const BlendWithMask& blend, I420Buffer& into) override {
    _script->blends.push_back({&blend.inputImage, blend.backgroundImage, &into});
    return _script->canRender;
  }

private:
  const std::shared_ptr<ScriptedCompositing> _script;
};

}  // namespace

std::optional<Image> ScriptedImaging::decode(std::string_view file) {
  int width = 0;
  int height = 0;
  if (std::sscanf(std::string(file).c_str(), "%dx%d", &width, &height) != 2) return std::nullopt;
  return plainImage(width, height);
}

std::optional<Image> ScriptedImaging::resize(const Image&, int width, int height) {
  asked.push_back("resize " + sides(width, height));
  return fails == "resize" ? std::nullopt : std::optional(plainImage(width, height));
}

std::optional<Image> ScriptedImaging::render(const VideoFrameBuffer& frame) {
  const auto view = frame.i420();
  asked.push_back("render " + sides(view.width, view.height));
  return fails == "render" ? std::nullopt : std::optional(plainImage(view.width, view.height));
}

std::optional<Image> ScriptedImaging::rotate(const Image& image, int degrees) {
  asked.push_back("rotate " + std::to_string(degrees));
  if (fails == "rotate") return std::nullopt;
  return degrees % 180 ? plainImage(image.height, image.width) : image;
}

std::optional<std::string> ScriptedImaging::encodeJpeg(const Image& image, double quality) {
  asked.push_back("jpeg " + sides(image.width, image.height) + " " + std::to_string(quality));
  return fails == "jpeg" ? std::nullopt : std::optional<std::string>("a jpeg");
}

std::shared_ptr<ScriptedCompositing> ScriptedCompositing::install(
    std::shared_ptr<Imaging> imaging) {
  auto script = std::make_shared<ScriptedCompositing>();
  auto platform = *Platform::current();
  platform.imaging = std::move(imaging);
  platform.makeContext = [script] { return std::make_unique<ScriptedContext>(script); };
  platform.makeImageRequestHandler = [script]() -> std::unique_ptr<VNImageRequestHandler> {
    ++script->made;
    if (!script->cannotBeMade.empty()) throw PersonSegmentationError(script->cannotBeMade);
    return std::make_unique<ScriptedSegmentation>(script);
  };
  Platform::install(std::move(platform));
  return script;
}

}  // namespace kestrova::test
