#include <kestrova/media/I420BufferPool.h>
#include <kestrova/media/ImageDownload.h>
#include <kestrova/media/KestrovaBackgroundProcessor.h>
#include <kestrova/model/Secrets.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/tracing/Trace.h>

#include <cstdint>
#include <exception>
#include <mutex>
#include <utility>

namespace kestrova {
namespace {

struct Size {
  int width = 0;
  int height = 0;
};

Size pixelSize(const VideoFrameBuffer& buffer) {
  if (buffer.format() == PixelFormat::nv12) return {buffer.nv12().width, buffer.nv12().height};
  if (buffer.format() == PixelFormat::bgra) return {buffer.bgra().width, buffer.bgra().height};
  return {buffer.i420().width, buffer.i420().height};
}

void sayUnavailable(const std::string& why) {
  traceError("Person segmentation is not available: backgrounds stay as they are",
             {{"error", why}});
}

}  // namespace

struct KestrovaBackgroundProcessor::State {
  struct Background {
    bool isThere = false;
    std::shared_ptr<const Image> image;  // nothing for the room itself, blurred
  };
  Background background() {
    std::scoped_lock held(backgroundLock);
    return {_isBackgroundThere, _backgroundci};
  }
  /// \returns the number of the change that begins
  std::uint64_t beginChange() {
    std::scoped_lock held(backgroundLock);
    return ++_change;
  }
  void set(std::shared_ptr<const Image> image, std::uint64_t change);
  void prepare();

  const std::shared_ptr<const Platform> platform = Platform::current();

  std::mutex backgroundLock;
  bool _isBackgroundThere = false;             // under backgroundLock
  std::shared_ptr<const Image> _backgroundci;  // under backgroundLock
  std::uint64_t _change = 0;                   // under backgroundLock; the latest one
  std::uint64_t _shown = 0;                    // under backgroundLock; the one that is seen

  // The capture thread alone:
  bool isPrepared = false;
  std::unique_ptr<VNImageRequestHandler> handler;
  std::unique_ptr<CIContext> reusableCIContext;
  std::optional<I420BufferPool> pixelBufferPool;
  int poolWidth = 0;
  int poolHeight = 0;
};

void KestrovaBackgroundProcessor::State::set(std::shared_ptr<const Image> image,
                                             std::uint64_t change) {
  std::scoped_lock held(backgroundLock);
  if (change < _shown) return;  // overtaken by a later one
  _shown = change;
  _isBackgroundThere = true;
  _backgroundci.swap(image);
}

/// What is costly is made where it is used, and tried once.
void KestrovaBackgroundProcessor::State::prepare() {
  if (std::exchange(isPrepared, true)) return;
  if (!platform->makeImageRequestHandler || !platform->makeContext)
    return sayUnavailable("this platform has none");
  try {
    reusableCIContext = platform->makeContext();
    if (reusableCIContext) handler = platform->makeImageRequestHandler();
    if (!handler) sayUnavailable("this platform has none");
  } catch (const std::exception& error) {
    sayUnavailable(error.what());
  }
}

KestrovaBackgroundProcessor::KestrovaBackgroundProcessor(const std::string& backgroundSource,
                                                         Completion completion)
    : _state(std::make_shared<State>()) {
  changeBackground(backgroundSource, std::move(completion));
}

KestrovaBackgroundProcessor::KestrovaBackgroundProcessor(Blur blur)
    : _state(std::make_shared<State>()) {
  changeBackground(blur);
}

KestrovaBackgroundProcessor::~KestrovaBackgroundProcessor() = default;

void KestrovaBackgroundProcessor::changeBackground(const std::string& backgroundSource,
                                                   Completion completion) {
  auto take = [weak = std::weak_ptr(_state), change = _state->beginChange(),
               url = addressWithoutSecrets(backgroundSource),
               completion = std::move(completion)](std::optional<Image> image) {
    if (!image)
      traceDebug([&] { return "Error downloading image from URL: " + url; });
    else if (const auto state = weak.lock())
      state->set(std::make_shared<const Image>(std::move(*image)), change);
    if (completion) completion(image.has_value());
  };
  downloadImage(backgroundSource, std::move(take));
}

void KestrovaBackgroundProcessor::changeBackground(Blur) {
  _state->set(nullptr, _state->beginChange());
}

std::optional<VideoFrame> KestrovaBackgroundProcessor::onFrameReceived(const VideoFrame& frame) {
  // Nobody is looked for before there is something to put behind them.
  if (!frame.buffer || !_state->background().isThere) return std::nullopt;
  _state->prepare();
  if (!_state->handler) return std::nullopt;
  MaskView mask;
  try {
    const VNGeneratePersonSegmentationRequest request{
        .qualityLevel = VNGeneratePersonSegmentationRequest::balanced, .outputPixelFormat = "L008"};
    mask = _state->handler->perform(request, *frame.buffer);
  } catch (const PersonSegmentationError& error) {
    traceDebug([&] {
      return std::string("Error performing person segmentation request: ") + error.what();
    });
    return std::nullopt;
  }
  if (!mask.pixels) return std::nullopt;
  auto composed = compositeImage(*frame.buffer, mask);
  if (!composed) return std::nullopt;
  return VideoFrame{
      .buffer = std::move(composed), .timestampUs = frame.timestampUs, .rotation = frame.rotation};
}

std::shared_ptr<const VideoFrameBuffer> KestrovaBackgroundProcessor::compositeImage(
    const VideoFrameBuffer& originalPixelBuffer, const MaskView& maskPixelBuffer) {
  auto& state = *_state;
  auto background = state.background();
  if (!background.isThere) return nullptr;
  const auto [width, height] = pixelSize(originalPixelBuffer);
  if (width < 1 || height < 1) return nullptr;
  if (!state.pixelBufferPool || state.poolWidth != width || state.poolHeight != height) {
    state.pixelBufferPool.emplace(width, height);
    state.poolWidth = width;
    state.poolHeight = height;
  }
  auto buffer = state.pixelBufferPool->createPixelBuffer();
  const BlendWithMask blend{.inputImage = originalPixelBuffer,
                            .backgroundImage = std::move(background.image),
                            .maskImage = maskPixelBuffer};
  if (!state.reusableCIContext->render(blend, *buffer)) return nullptr;
  return buffer;
}

}  // namespace kestrova
