#pragma once

#include <kestrova/platform/Capture.h>

#include <boost/asio/any_io_executor.hpp>

#include "Journal.h"
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace kestrova::test {

class ScriptedCamera;
class ScriptedMicrophone;

/// Cameras and a microphone that do as they are told.
class ScriptedCapture final : public CaptureDevices {
public:
  enum class Behaviour { works, fails, hangs };

  ScriptedCapture(Journal& journal, boost::asio::any_io_executor executor)
      : _journal(journal), _executor(std::move(executor)) {}

  Behaviour cameraStart = Behaviour::works;
  Behaviour cameraStop = Behaviour::works;
  std::string failsToStart;  ///< the id of a camera
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
  /// Ends the captures that run, as a device does that is unplugged.
  void failCameras(const std::string& error);
  void failMicrophones(const std::string& error);
  /// What the cameras that run see.
  void deliver(const VideoFrame& frame);
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
  // Shared with them: what still waits for a device at the end may outlive this object.
  const std::shared_ptr<std::set<ScriptedCamera*>> _cameras =
      std::make_shared<std::set<ScriptedCamera*>>();
  const std::shared_ptr<std::set<ScriptedMicrophone*>> _microphones =
      std::make_shared<std::set<ScriptedMicrophone*>>();
};

}  // namespace kestrova::test
