#pragma once

#include <kestrova/media/KestrovaVideoProcessor.h>
#include <kestrova/platform/WebRTC.h>

#include <memory>
#include <mutex>

namespace kestrova {

/// The road of the camera's pictures to the source that sends them: through the processor, and past
/// whoever wants a still picture. Any thread may call, but for `process`.
class FramePath {
public:
  /// On the capture thread, with no lock held while the processor works.
  void process(const VideoFrame& frame, RTCVideoSource& into);

  /// Nothing: pictures pass as they are.
  void setVideoProcessor(std::shared_ptr<KestrovaVideoProcessor> processor);
  /// The newest picture is kept until as many calls of `takeCapturedImage` have come.
  void beginImageCapture();
  /// Without a buffer when none has passed since.
  VideoFrame takeCapturedImage();
  /// The camera's track has gone: so has its processor, and what was kept.
  void forget();

private:
  static std::optional<VideoFrame> processed(KestrovaVideoProcessor& processor,
                                             const VideoFrame& frame);
  void keep(const VideoFrame& frame);

  std::mutex _frameLock;  // for all below; for a read or a write, never while a processor works
  std::shared_ptr<KestrovaVideoProcessor> _videoProcessor;
  bool _imageCaptureFlag = false;
  int _imageCaptures = 0;  // under way
  VideoFrame _capturedImage;
};

}  // namespace kestrova
