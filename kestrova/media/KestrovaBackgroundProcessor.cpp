#include <kestrova/media/I420BufferPool.h>
#include <kestrova/media/ImageDownload.h>
#include <kestrova/media/KestrovaBackgroundProcessor.h>
#include <kestrova/model/Secrets.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/tracing/Trace.h>

#include <boost/asio/post.hpp>

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
  /// Tells whether the background can be shown. What that takes is prepared in the background.
  static void tell(const std::shared_ptr<State>& state, bool isThere, Completion completion);

  const std::shared_ptr<const Platform> platform = Platform::current();

  std::mutex backgroundLock;
  bool _isBackgroundThere = false;             // under backgroundLock
  std::shared_ptr<const Image> _backgroundci;  // under backgroundLock
  std::uint64_t _change = 0;                   // under backgroundLock; the latest one
  std::uint64_t _shown = 0;                    // under backgroundLock; the one that is seen

  std::once_flag prepared;
  // Made once, then the capture thread's alone:
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

/// What is costly is made when it is needed, and tried once.
void KestrovaBackgroundProcessor::State::prepare() {
  std::call_once(prepared, [this] {
    if (!platform->makeImageRequestHandler || !platform->makeContext)
      return sayUnavailable("this platform has none");
    try {
      reusableCIContext = platform->makeContext();
      if (reusableCIContext) handler = platform->makeImageRequestHandler();
      if (!handler) sayUnavailable("this platform has none");
    } catch (const std::exception& error) {
      sayUnavailable(error.what());
    }
  });
}

void KestrovaBackgroundProcessor::State::tell(const std::shared_ptr<State>& state, bool isThere,
                                              Completion completion) {
  if (!completion) return;
  boost::asio::post(state->platform->background,
                    [state, isThere, completion = std::move(completion)]() mutable {
                      if (isThere) state->prepare();
                      const bool isShown = isThere && state->handler;
                      MainQueue::shared().async(
                          [isShown, completion = std::move(completion)] { completion(isShown); });
                    });
}

KestrovaBackgroundProcessor::KestrovaBackgroundProcessor(const std::string& backgroundSource,
                                                         Completion completion)
    : _state(std::make_shared<State>()) {
  changeBackground(backgroundSource, std::move(completion));
}

KestrovaBackgroundProcessor::KestrovaBackgroundProcessor(Blur blur, Completion completion)
    : _state(std::make_shared<State>()) {
  changeBackground(blur, std::move(completion));
}

KestrovaBackgroundProcessor::~KestrovaBackgroundProcessor() = default;

void KestrovaBackgroundProcessor::changeBackground(const std::string& backgroundSource,
                                                   Completion completion) {
  auto take = [weak = std::weak_ptr(_state), change = _state->beginChange(),
               url = addressWithoutSecrets(backgroundSource),
               completion = std::move(completion)](std::optional<Image> image) {
    const bool isThere = image.has_value();
    if (!isThere) traceDebug([&] { return "Error downloading image from URL: " + url; });
    const auto state = weak.lock();
    if (!state) {
      if (completion) completion(false);
      return;
    }
    if (isThere) state->set(std::make_shared<const Image>(std::move(*image)), change);
    State::tell(state, isThere, completion);
  };
  downloadImage(backgroundSource, std::move(take));
}

void KestrovaBackgroundProcessor::changeBackground(Blur, Completion completion) {
  _state->set(nullptr, _state->beginChange());
  State::tell(_state, true, std::move(completion));
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
