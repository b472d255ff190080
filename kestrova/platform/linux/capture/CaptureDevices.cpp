#include <kestrova/platform/linux/capture/CaptureDevices.h>
#include <kestrova/platform/linux/capture/PatternCapturer.h>
#include <kestrova/platform/linux/capture/ToneCapturer.h>

#include <mutex>

namespace kestrova {
namespace {

/// A camera capturer where there is no camera.
class AbsentCamera final : public RTCCameraVideoCapturer {
public:
  void onFrame(FrameHandler) override {}
  void onFailure(FailureHandler) override {}
  bool isRunning() const override { return false; }
  void startCapture(const AVCaptureDevice&, const CaptureFormat&, int,
                    std::function<void(const std::string& error)> completion) override {
    if (completion) completion("there is no camera");
  }
  void stopCapture(std::function<void()> completion) override {
    if (completion) completion();
  }
};

/// Devices of the system itself would be found in the two places marked "default"; until this
/// library reads V4L2 and the sound server it knows of none.
class LinuxCaptureDevices final : public CaptureDevices {
public:
  void configure(const CaptureConfig& config) override {
    std::scoped_lock held(_lock);
    _config = config;
  }

  std::vector<AVCaptureDevice> cameras() override {
    if (current().camera == "pattern") return patternCameras();
    return {};  // "default", "none"
  }

  // The desktop asks nobody: what can be opened may be used.
  AuthorisationStatus cameraAuthorization() override { return AuthorisationStatus::authorized; }
  AuthorisationStatus microphoneAuthorization() override { return AuthorisationStatus::authorized; }

  std::unique_ptr<RTCCameraVideoCapturer> makeCameraCapturer() override {
    if (current().camera == "pattern") return std::make_unique<PatternCapturer>();
    return std::make_unique<AbsentCamera>();
  }

  std::unique_ptr<MicrophoneCapturer> makeMicrophoneCapturer() override {
    const auto config = current();
    if (config.microphone == "tone") return std::make_unique<ToneCapturer>(config.toneHz);
    return nullptr;  // "default", "none"
  }

private:
  CaptureConfig current() const {
    std::scoped_lock held(_lock);
    return _config;
  }

  mutable std::mutex _lock;
  CaptureConfig _config;  // under _lock
};

}  // namespace

std::shared_ptr<CaptureDevices> makeCaptureDevices() {
  return std::make_shared<LinuxCaptureDevices>();
}

}  // namespace kestrova
