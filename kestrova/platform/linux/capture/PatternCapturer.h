#pragma once

#include <kestrova/platform/Capture.h>
#include <kestrova/platform/linux/capture/PeriodicThread.h>

#include <memory>
#include <mutex>
#include <vector>

namespace kestrova {

/// Two cameras that show the test picture, one for each position.
const std::vector<AVCaptureDevice>& patternCameras();

/// Captures the test picture, drawn in the size and at the rate asked for. Its clock shows the
/// system's time of day in UTC.
class PatternCapturer final : public RTCCameraVideoCapturer {
public:
  ~PatternCapturer() override;
  void onFrame(FrameHandler handler) override;
  void onFailure(FailureHandler) override {}  // drawing does not fail
  bool isRunning() const override;
  void startCapture(const AVCaptureDevice& device, const CaptureFormat& format, int fps,
                    std::function<void(const std::string& error)> completion) override;
  void stopCapture(std::function<void()> completion) override;

private:
  struct Output;
  void endThreads();

  mutable std::mutex _lock;
  // Under _lock:
  std::shared_ptr<FrameHandler> _handler;
  std::unique_ptr<PeriodicThread> _thread;
  std::unique_ptr<PeriodicThread> _ended;  // stopped, perhaps in its last call
};

}  // namespace kestrova
