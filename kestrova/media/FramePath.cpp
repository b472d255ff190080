#include <kestrova/media/FramePath.h>
#include <kestrova/tracing/Trace.h>

#include <exception>
#include <optional>
#include <utility>

namespace kestrova {
namespace {

/// Whether there is something to be seen: a picture without pixels would stop the video.
bool hasPicture(const VideoFrame& frame) {
  if (!frame.buffer) return false;
  switch (frame.buffer->format()) {
    case PixelFormat::nv12:
      return isComplete(frame.buffer->nv12());
    case PixelFormat::bgra:
      return isComplete(frame.buffer->bgra());
    case PixelFormat::i420:
      break;
  }
  return isComplete(frame.buffer->i420());
}

}  // namespace

void FramePath::process(const VideoFrame& frame, RTCVideoSource& into) {
  std::shared_ptr<KestrovaVideoProcessor> processor;
  bool isWanted = false;
  {
    std::scoped_lock held(_frameLock);
    processor = _videoProcessor;
    isWanted = _imageCaptureFlag;
  }
  const auto changed = processor ? processed(*processor, frame) : std::nullopt;
  const auto& seen = changed ? *changed : frame;
  if (isWanted) keep(seen);
  into.onFrame(seen);
}

std::optional<VideoFrame> FramePath::processed(KestrovaVideoProcessor& processor,
                                               const VideoFrame& frame) {
  try {
    auto changed = processor.onFrameReceived(frame);
    if (!changed || !hasPicture(*changed)) return std::nullopt;
    if (changed->timestampUs == 0) changed->timestampUs = frame.timestampUs;
    return changed;
  } catch (const std::exception& error) {
    traceDebug("A video processor failed", {{"error", std::string_view(error.what())}});
  } catch (...) {
    traceDebug("A video processor failed");
  }
  return std::nullopt;
}

void FramePath::keep(const VideoFrame& frame) {
  auto kept = frame;  // what was kept before goes behind the lock
  std::scoped_lock held(_frameLock);
  if (_imageCaptureFlag) std::swap(_capturedImage, kept);
}

void FramePath::setVideoProcessor(std::shared_ptr<KestrovaVideoProcessor> processor) {
  std::scoped_lock held(_frameLock);
  _videoProcessor.swap(processor);
}

void FramePath::beginImageCapture() {
  std::scoped_lock held(_frameLock);
  ++_imageCaptures;
  _imageCaptureFlag = true;
}

VideoFrame FramePath::takeCapturedImage() {
  VideoFrame last;
  std::scoped_lock held(_frameLock);
  if (_imageCaptures > 0 && --_imageCaptures > 0) return _capturedImage;
  _imageCaptureFlag = false;
  std::swap(last, _capturedImage);
  return last;
}

void FramePath::forget() {
  std::shared_ptr<KestrovaVideoProcessor> processor;
  VideoFrame kept;
  std::scoped_lock held(_frameLock);
  processor.swap(_videoProcessor);
  std::swap(kept, _capturedImage);
}

}  // namespace kestrova
