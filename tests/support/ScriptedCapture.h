#pragma once

#include <kestrova/platform/Capture.h>

#include <boost/asio/any_io_executor.hpp>

#include "Journal.h"
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kestrova::test {

/// Cameras and a microphone that do as they are told.
class ScriptedCapture final : public CaptureDevices {
public:
  enum class Behaviour { works, fails, hangs };

  ScriptedCapture(Journal& journal, boost::asio::any_io_executor executor)
      : _journal(journal), _executor(std::move(executor)) {}

  Behaviour cameraStart = Behaviour::works;
  Behaviour cameraStop = Behaviour::works;
  Behaviour microphoneStart = Behaviour::works;
  bool hasMicrophone = true;
  AuthorisationStatus cameraStatus = AuthorisationStatus::authorized;
  AuthorisationStatus microphoneStatus = AuthorisationStatus::authorized;
  std::vector<AVCaptureDevice> devices{
      {"cam-front", "Front Camera", CameraPosition::front, {640, 480, 30}},
      {"cam-back", "Back Camera", CameraPosition::back, {1920, 1080, 30}}};
  CaptureConfig config;

  /// Lets what hangs come to its end after all.
  void finishHanging();
  bool microphoneRunning = false;

  void configure(const CaptureConfig& wanted) override { config = wanted; }
  std::vector<AVCaptureDevice> cameras() override { return devices; }
  AuthorisationStatus cameraAuthorization() override { return cameraStatus; }
  AuthorisationStatus microphoneAuthorization() override { return microphoneStatus; }
  std::unique_ptr<RTCCameraVideoCapturer> makeCameraCapturer() override;
  std::unique_ptr<MicrophoneCapturer> makeMicrophoneCapturer() override;

private:
  friend class ScriptedCamera;
  friend class ScriptedMicrophone;
  void later(Behaviour behaviour, std::function<void()> completion);

  Journal& _journal;
  boost::asio::any_io_executor _executor;
  std::vector<std::function<void()>> _hanging;
};

}  // namespace kestrova::test
