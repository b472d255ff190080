#pragma once

#include <kestrova/platform/EnumTexts.h>
#include <kestrova/platform/WebRTC.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova {

enum class CameraPosition { back, front };
enum class AuthorisationStatus { notDetermined, authorized, denied, restricted };

/// The cases' names.
inline constexpr EnumTexts<CameraPosition, 2> cameraPositionTexts{{"back", "front"}};
inline constexpr EnumTexts<AuthorisationStatus, 4> authorisationStatusTexts{
    {"notDetermined", "authorized", "denied", "restricted"}};
constexpr std::string_view text(CameraPosition position) {
  return cameraPositionTexts(position);
}
constexpr std::string_view text(AuthorisationStatus status) {
  return authorisationStatusTexts(status);
}

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
  using FailureHandler = std::function<void(const std::string& error)>;
  virtual ~RTCCameraVideoCapturer() = default;
  virtual void onFrame(FrameHandler handler) = 0;
  /// Called once for a capture that ends by itself after it began: the device was unplugged,
  /// stopped delivering, or its file can't be read on. No picture follows; on a thread of the
  /// capturer.
  virtual void onFailure(FailureHandler handler) = 0;
  virtual bool isRunning() const = 0;
  /// `completion` is called once capture has begun, with an empty text, or with what went wrong. It
  /// may come on any thread, and may never come when the device hangs.
  virtual void startCapture(const AVCaptureDevice& device, const CaptureFormat& format, int fps,
                            std::function<void(const std::string& error)> completion) = 0;
  /// No picture is delivered after `completion`.
  virtual void stopCapture(std::function<void()> completion) = 0;
};

/// Feeds a microphone's samples into a source from `start` until `stop` or release.
///
/// The source's constraints say which processing the samples of a real microphone go through.
class MicrophoneCapturer {
public:
  using FailureHandler = std::function<void(const std::string& error)>;
  virtual ~MicrophoneCapturer() = default;
  /// Called once for a capture that ends by itself after it began, on a thread of the capturer. Set
  /// it before `start`.
  virtual void onFailure(FailureHandler handler) = 0;
  virtual bool start(const std::shared_ptr<RTCAudioSource>& source) = 0;
  virtual void stop() = 0;
};

/// Which devices stand for "the camera", "the microphone" and "the speaker" of this process.
struct CaptureConfig {
  /// "default" is every camera of the system, "none" no camera, "pattern" a moving test picture
  /// with a running clock. Else one camera's device file or `uniqueId`, or a file of pictures
  /// (.y4m, .mjpeg, .mjpg), which starts over at its end.
  std::string camera = "default";
  /// "default" is the sound server's default source, "none" no microphone, "tone" a sine of
  /// `toneHz`. Else a microphone by its name, as `Kestrova::getAudioDevices` gives it or as the
  /// sound server calls the source, or a .wav file, which starts over at its end. What
  /// `Meeting::changeMic` chooses counts until another one is named here.
  std::string microphone = "default";
  /// "default" is the sound server's default sink, "none" plays nothing. Else the name of a sink.
  /// Without a sound server nothing is played.
  ///
  /// By default all sound that is received is heard on the machine, sinks or not: a program that
  /// wants no sound says "none", or `headless()`. A change takes effect at once.
  std::string speaker = "default";
  double toneHz = 440.0;
  /// A regular expression (ECMAScript, ignoring case): cameras whose name or id it finds count as
  /// facing back, the others as facing front.
  std::string backCameras = "back|rear|world";

  /// No camera, no microphone, no speaker: for programs with tracks of their own, where only sinks
  /// watch and listen.
  static CaptureConfig headless() {
    return {.camera = "none", .microphone = "none", .speaker = "none"};
  }
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
