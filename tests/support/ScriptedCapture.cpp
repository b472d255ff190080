#include "ScriptedCapture.h"

#include <boost/asio/post.hpp>

#include <utility>

namespace kestrova::test {

class ScriptedCamera final : public RTCCameraVideoCapturer {
public:
  explicit ScriptedCamera(ScriptedCapture& script) : _script(script), _all(script._cameras) {
    _all->insert(this);
  }
  ~ScriptedCamera() override { _all->erase(this); }
  void onFrame(FrameHandler handler) override { _onFrame = std::move(handler); }
  void onFailure(FailureHandler handler) override { _onFailure = std::move(handler); }
  bool isRunning() const override { return _running; }

  void startCapture(const AVCaptureDevice& device, const CaptureFormat& format, int fps,
                    std::function<void(const std::string&)> completion) override {
    _script._journal.add("camera.start " + device.uniqueId + " " + std::to_string(format.width) +
                         "x" + std::to_string(format.height) + "@" + std::to_string(fps));
    const auto behaviour = device.uniqueId == _script.failsToStart
                               ? ScriptedCapture::Behaviour::fails
                               : _script.cameraStart;
    _running = behaviour != ScriptedCapture::Behaviour::fails;
    const std::string error = _running ? "" : "the device is busy";
    _script.later(behaviour, [completion = std::move(completion), error] { completion(error); });
  }

  void stopCapture(std::function<void()> completion) override {
    _script._journal.add("camera.stop");
    _running = false;
    _script.later(_script.cameraStop, std::move(completion));
  }

  void fail(const std::string& error) {
    if (std::exchange(_running, false) && _onFailure) _onFailure(error);
  }
  void deliver(const VideoFrame& frame) {
    if (_running && _onFrame) _onFrame(frame);
  }

private:
  ScriptedCapture& _script;
  const std::shared_ptr<std::set<ScriptedCamera*>> _all;
  FrameHandler _onFrame;
  FailureHandler _onFailure;
  bool _running = false;
};

class ScriptedMicrophone final : public MicrophoneCapturer {
public:
  explicit ScriptedMicrophone(ScriptedCapture& script)
      : _script(script), _all(script._microphones) {
    _all->insert(this);
  }
  ~ScriptedMicrophone() override {
    _all->erase(this);
    end();
  }

  void onFailure(FailureHandler handler) override { _onFailure = std::move(handler); }
  bool start(const std::shared_ptr<RTCAudioSource>&) override {
    _script._journal.add("microphone.start");
    _running = _script.microphoneStart == ScriptedCapture::Behaviour::works;
    _script.microphoneRunning |= _running;
    return _running;
  }
  void stop() override {
    if (_running) _script._journal.add("microphone.stop");
    end();
  }

  void fail(const std::string& error) {
    const bool ran = _running;
    end();
    if (ran && _onFailure) _onFailure(error);
  }

private:
  void end() {
    if (std::exchange(_running, false)) _script.microphoneRunning = false;
  }
  ScriptedCapture& _script;
  const std::shared_ptr<std::set<ScriptedMicrophone*>> _all;
  FailureHandler _onFailure;
  bool _running = false;
};

std::unique_ptr<RTCCameraVideoCapturer> ScriptedCapture::makeCameraCapturer() {
  return std::make_unique<ScriptedCamera>(*this);
}

std::unique_ptr<MicrophoneCapturer> ScriptedCapture::makeMicrophoneCapturer() {
  if (!hasMicrophone) return nullptr;
  return std::make_unique<ScriptedMicrophone>(*this);
}

void ScriptedCapture::later(Behaviour behaviour, std::function<void()> completion) {
  if (behaviour == Behaviour::hangs)
    _hanging.push_back(std::move(completion));
  else
    boost::asio::post(_executor, std::move(completion));
}

void ScriptedCapture::failCameras(const std::string& error) {
  for (auto* camera : *_cameras) camera->fail(error);
}

void ScriptedCapture::failMicrophones(const std::string& error) {
  for (auto* microphone : *_microphones) microphone->fail(error);
}

void ScriptedCapture::deliver(const VideoFrame& frame) {
  for (auto* camera : *_cameras) camera->deliver(frame);
}

void ScriptedCapture::finishHanging() {
  for (auto& completion : std::exchange(_hanging, {}))
    boost::asio::post(_executor, std::move(completion));
}

}  // namespace kestrova::test
