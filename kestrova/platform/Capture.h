#pragma once

#include <kestrova/platform/WebRTC.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kestrova {

enum class CameraPosition { back, front };
enum class AuthorisationStatus { notDetermined, authorized, denied, restricted };

/// A picture format that a device delivers.
struct CaptureFormat {
  int width = 0;
  int height = 0;
  int fps = 0;
};

struct AVCaptureDevice {
  /// Stable over restarts of the process.
  std::string uniqueId;
  std::string localizedName;
  CameraPosition position = CameraPosition::front;
  CaptureFormat activeFormat;
};

/// Captures from one camera at a time and hands the pictures to `onFrame`, on a thread of its own.
class RTCCameraVideoCapturer {
public:
  using FrameHandler = std::function<void(const VideoFrame&)>;
  virtual ~RTCCameraVideoCapturer() = default;
  virtual void onFrame(FrameHandler handler) = 0;
  virtual bool isRunning() const = 0;
  /// `completion` is called once capture has begun, with an empty text, or with what went wrong. It
  /// may come on any thread, and may never come when the device hangs.
  virtual void startCapture(const AVCaptureDevice& device, const CaptureFormat& format, int fps,
                            std::function<void(const std::string& error)> completion) = 0;
  /// No picture is delivered after `completion`.
  virtual void stopCapture(std::function<void()> completion) = 0;
};

/// Feeds a microphone's samples into a source from `start` until `stop` or release.
class MicrophoneCapturer {
public:
  virtual ~MicrophoneCapturer() = default;
  virtual bool start(const std::shared_ptr<RTCAudioSource>& source) = 0;
  virtual void stop() = 0;
};

/// Which devices stand for "the camera" and "the microphone" of this process.
///
/// "default" is the system's own device, "none" no device at all, "pattern" a moving test picture
/// with a running clock, and "tone" a sine of `toneHz`.
struct CaptureConfig {
  std::string camera = "default";
  std::string microphone = "default";
  double toneHz = 440.0;
};

/// The machine's cameras and microphone. Thread-safe.
class CaptureDevices {
public:
  virtual ~CaptureDevices() = default;
  virtual void configure(const CaptureConfig& config) = 0;
  virtual std::vector<AVCaptureDevice> cameras() = 0;
  virtual AuthorisationStatus cameraAuthorization() = 0;
  virtual AuthorisationStatus microphoneAuthorization() = 0;
  virtual std::unique_ptr<RTCCameraVideoCapturer> makeCameraCapturer() = 0;
  /// Nothing when there is no microphone.
  virtual std::unique_ptr<MicrophoneCapturer> makeMicrophoneCapturer() = 0;
};

}  // namespace kestrova
