#include <kestrova/platform/linux/audio/MicrophoneRoute.h>
#include <kestrova/platform/linux/audio/PulseMicrophone.h>
#include <kestrova/platform/linux/audio/Speaker.h>
#include <kestrova/platform/linux/capture/CaptureDevices.h>
#include <kestrova/platform/linux/capture/FileCamera.h>
#include <kestrova/platform/linux/capture/PatternCapturer.h>
#include <kestrova/platform/linux/capture/ThreadedCamera.h>
#include <kestrova/platform/linux/capture/ToneCapturer.h>
#include <kestrova/platform/linux/capture/V4l2Cameras.h>
#include <kestrova/platform/linux/capture/WavMicrophone.h>

#include <mutex>
#include <optional>
#include <string>

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

/// The thing behind a device of any kind, whatever the configuration has become meanwhile.
std::unique_ptr<PictureSource> makeSource(const AVCaptureDevice& device,
                                          const CaptureFormat& format, int fps) {
  if (auto file = makeFileSource(device, fps)) return file;
  if (device.uniqueId.empty()) return nullptr;
  return makeV4l2Source(device, format, fps);
}

class LinuxCaptureDevices final : public CaptureDevices {
public:
  void configure(const CaptureConfig& config) override {
    setSpeaker(config.speaker);
    MicrophoneRoute::shared().configure(soundServerSource(config));
    std::scoped_lock held(_lock);
    _config = config;
  }

  std::vector<AVCaptureDevice> cameras() override {
    const auto config = current();
    switch (kindOf(config)) {
      case Camera::none:
        return {};
      case Camera::pattern:
        return patternCameras();
      case Camera::file:
        return fileCameras(config.camera);
      case Camera::device:
        break;
    }
    return camerasFor(config);
  }

  // The desktop asks nobody: what can be opened may be used.
  AuthorisationStatus cameraAuthorization() override {
    const auto config = current();
    return kindOf(config) == Camera::device ? authorizationFor(config)
                                            : AuthorisationStatus::authorized;
  }
  AuthorisationStatus microphoneAuthorization() override { return AuthorisationStatus::authorized; }

  std::unique_ptr<RTCCameraVideoCapturer> makeCameraCapturer() override {
    switch (kindOf(current())) {
      case Camera::none:
        return std::make_unique<AbsentCamera>();
      case Camera::pattern:
        return std::make_unique<PatternCapturer>();
      default:
        return std::make_unique<ThreadedCamera>(makeSource);
    }
  }

  std::unique_ptr<MicrophoneCapturer> makeMicrophoneCapturer() override {
    const auto config = current();
    if (config.microphone == "tone") return std::make_unique<ToneCapturer>(config.toneHz);
    if (isSoundFile(config.microphone)) return std::make_unique<WavMicrophone>(config.microphone);
    const auto source = soundServerSource(config);
    return source ? makePulseMicrophone(*source) : nullptr;
  }

private:
  enum class Camera { none, pattern, file, device };
  static Camera kindOf(const CaptureConfig& config) {
    if (config.camera == "none") return Camera::none;
    if (config.camera == "pattern") return Camera::pattern;
    return isPictureFile(config.camera) ? Camera::file : Camera::device;
  }

  /// Nothing where the microphone is no device of the sound server.
  static std::optional<std::string> soundServerSource(const CaptureConfig& config) {
    const auto& microphone = config.microphone;
    if (microphone == "tone" || microphone == "none" || isSoundFile(microphone))
      return std::nullopt;
    return microphone == "default" ? "" : microphone;
  }

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
