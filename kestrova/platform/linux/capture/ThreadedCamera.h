#pragma once

#include <kestrova/platform/Capture.h>
#include <kestrova/platform/linux/capture/PictureSource.h>

#include <functional>
#include <memory>
#include <mutex>

namespace kestrova {

/// Captures from a `PictureSource` on a thread of its own; the caller never waits for the device.
///
/// A new start ends the capture before it and waits for its device on the new thread. A capture
/// that is stopped while it starts ends its start with an error. Release waits for a call of a
/// handler in progress, unless it comes from there; a start that hangs is left behind, and calls
/// nobody any more.
class ThreadedCamera final : public RTCCameraVideoCapturer {
public:
  /// Makes the source for one capture; cheap, as opening it is the source's own business.
  using MakeSource = std::function<std::unique_ptr<PictureSource>(
      const AVCaptureDevice& device, const CaptureFormat& format, int fps)>;

  explicit ThreadedCamera(MakeSource makeSource) : _makeSource(std::move(makeSource)) {}
  ~ThreadedCamera() override;
  void onFrame(FrameHandler handler) override;
  void onFailure(FailureHandler handler) override;
  bool isRunning() const override;
  void startCapture(const AVCaptureDevice& device, const CaptureFormat& format, int fps,
                    std::function<void(const std::string& error)> completion) override;
  void stopCapture(std::function<void()> completion) override;

private:
  class Session;
  std::shared_ptr<Session> current() const;

  const MakeSource _makeSource;
  mutable std::mutex _lock;
  // Under _lock:
  FrameHandler _frameHandler;
  FailureHandler _failureHandler;
  std::shared_ptr<Session> _session;  // the last one, perhaps ended
};

}  // namespace kestrova
