#include <kestrova/media/EncodingPresets.h>
#include <kestrova/media/MediaCapturer.h>
#include <kestrova/platform/Await.h>
#include <kestrova/tracing/Trace.h>

#include <boost/asio/co_spawn.hpp>

#include <algorithm>
#include <optional>
#include <utility>

namespace kestrova {
namespace {

std::optional<AVCaptureDevice> getCameraDevice(CaptureDevices& devices, CameraPosition position) {
  const auto cameras = devices.cameras();
  const auto found = std::find_if(cameras.begin(), cameras.end(),
                                  [&](const auto& camera) { return camera.position == position; });
  return found == cameras.end() ? std::nullopt : std::optional(*found);
}

AuthorisationStatus checkPermission(const char* span, AuthorisationStatus status) {
  ScopedSpan checking(span);
  checking.event(status == AuthorisationStatus::authorized ? "Permission: ALLOWED"
                                                           : "Permission: DENIED");
  return status;
}

}  // namespace

std::shared_ptr<MediaCapturer> MediaCapturer::make() {
  std::shared_ptr<MediaCapturer> capturer(new MediaCapturer(Platform::current()));
  capturer->_videoCapturer->onFrame([weak = capturer->weak_from_this()](const VideoFrame& frame) {
    const auto self = weak.lock();
    if (const auto source = self ? self->videoSource() : nullptr) source->onFrame(frame);
  });
  return capturer;
}

MediaCapturer::MediaCapturer(std::shared_ptr<const Platform> platform)
    : _platform(std::move(platform)),
      _peerConnectionFactory(_platform->peerConnectionFactory()),
      _cameraSessionQueue(SerialQueue::make("live.kestrova.camera.session")),
      _videoCapturer(_platform->captureDevices->makeCameraCapturer()),
      _videoSource(_peerConnectionFactory->videoSource()) {}

MediaCapturer::~MediaCapturer() {
  if (!_videoCapturer->isRunning()) return;
  // The capturer is kept until the device has let go.
  _videoCapturer->stopCapture([keep = _videoCapturer] {});
}

// ---- Camera ------------------------------------------------------------------------------------

Task<std::shared_ptr<RTCVideoTrack>> MediaCapturer::createVideoTrack(
    CustomVideoTrackConfig encoderConfig, CameraPosition facingMode) {
  const auto& row = videoTrackPreset(encoderConfig);
  const CaptureFormat output{row.width, row.height, defaultFrameRate};
  auto capturing = boost::asio::co_spawn(_cameraSessionQueue->executor(),
                                         capture(output, facingMode), boost::asio::use_awaitable);
  co_return co_await std::move(capturing);
}

Task<std::shared_ptr<RTCVideoTrack>> MediaCapturer::capture(CaptureFormat output,
                                                            CameraPosition position) {
  const auto self = shared_from_this();
  const auto turn = co_await _session.acquire();
  if (isCameraRunning() && !co_await stopSession())
    traceError("Camera stop timed out during video-track creation.");
  // A camera of this system serves one process at a time.
  traceDebug("Multitasking not supported on this device!");

  auto device = getCameraDevice(*_platform->captureDevices, position);
  if (!device) co_return nullptr;
  const auto source = videoSource();
  source->adaptOutputFormat(output.width, output.height, output.fps);
  if (!co_await startSession(*device, output.fps)) co_return nullptr;
  setCameraPosition(position);
  co_return bindTrackIfSourceCurrent(source);
}

Task<bool> MediaCapturer::stopSession() {
  auto stop = [this](Completion<bool> done) {
    _platform->scheduler->detachedAfter(captureTimeout, [done] { done(false); });
    _videoCapturer->stopCapture([done] { done(true); });
  };
  co_return co_await awaitCallback<bool>(std::move(stop));
}

Task<bool> MediaCapturer::startSession(AVCaptureDevice device, int fps) {
  enum class Outcome { started, failed, timedOut };
  auto start = [this, &device, fps](Completion<Outcome> done) {
    _platform->scheduler->detachedAfter(captureTimeout, [done] { done(Outcome::timedOut); });
    _videoCapturer->startCapture(device, device.activeFormat, fps,
                                 [done](const std::string& error) {
                                   if (!error.empty())
                                     traceError([&] { return "Failed to start video! " + error; });
                                   done(error.empty() ? Outcome::started : Outcome::failed);
                                 });
  };
  const auto outcome = co_await awaitCallback<Outcome>(std::move(start));
  if (outcome == Outcome::timedOut) {
    traceError("Camera start timed out during video-track creation.");
    _videoCapturer->stopCapture([] {});  // should it start after all
  }
  co_return outcome == Outcome::started;
}

std::shared_ptr<RTCVideoTrack> MediaCapturer::bindTrackIfSourceCurrent(
    const std::shared_ptr<RTCVideoSource>& source) {
  {
    std::scoped_lock held(_mediaLock);
    if (_videoSource == source) {
      _videoTrack = _peerConnectionFactory->videoTrack(source, cameraTrackId);
      return _videoTrack;
    }
  }
  traceError("Video source was replaced during video-track creation; aborting camera publish.");
  _videoCapturer->stopCapture([] {});
  return nullptr;
}

Task<void> MediaCapturer::stopCamera() {
  const auto self = shared_from_this();
  const auto turn = co_await _session.acquire();
  if (isCameraRunning()) co_await stopSession();
}

std::shared_ptr<RTCVideoSource> MediaCapturer::videoSource() const {
  std::scoped_lock held(_mediaLock);
  return _videoSource;
}

CameraPosition MediaCapturer::cameraPosition() const {
  std::scoped_lock held(_mediaLock);
  return _cameraPosition;
}

void MediaCapturer::setCameraPosition(CameraPosition position) {
  std::scoped_lock held(_mediaLock);
  _cameraPosition = position;
}

// ---- Microphone --------------------------------------------------------------------------------

std::shared_ptr<RTCAudioTrack> MediaCapturer::createAudioTrack(
    const std::map<std::string, std::string>& constraints) {
  auto microphone = _platform->captureDevices->makeMicrophoneCapturer();
  if (!microphone) return nullptr;
  const auto source = _peerConnectionFactory->audioSource(constraints);
  if (!microphone->start(source)) return nullptr;
  auto track = _peerConnectionFactory->audioTrack(source, microphoneTrackId);
  std::scoped_lock held(_mediaLock);
  _microphone.swap(microphone);
  _audioTrack = track;
  return track;
}

void MediaCapturer::removeAudioTrack() {
  std::unique_ptr<MicrophoneCapturer> microphone;
  std::shared_ptr<RTCAudioTrack> track;
  {
    std::scoped_lock held(_mediaLock);
    microphone.swap(_microphone);
    track.swap(_audioTrack);
  }
  if (microphone) microphone->stop();
  if (track) track->setEnabled(false);
}

void MediaCapturer::removeVideoTrack() {
  auto fresh = _peerConnectionFactory->videoSource();
  std::shared_ptr<RTCVideoTrack> track;
  {
    std::scoped_lock held(_mediaLock);
    _videoSource.swap(fresh);
    track.swap(_videoTrack);
  }
  if (track) track->setEnabled(false);
}

void MediaCapturer::stop() {
  removeVideoTrack();
  removeAudioTrack();
  if (isCameraRunning()) _videoCapturer->stopCapture([] {});
}

// ---- Devices -----------------------------------------------------------------------------------

void MediaCapturer::disposeCustomTrack(const std::shared_ptr<CustomRTCMediaStream>& stream) {
  if (stream) stream->disposeTracks();
}

AuthorisationStatus MediaCapturer::getVideoPermissionStatus() {
  return checkPermission("Checking Camera Permission",
                         Platform::current()->captureDevices->cameraAuthorization());
}

AuthorisationStatus MediaCapturer::getAudioPermissionStatus() {
  return checkPermission("Checking Microphone Permission",
                         Platform::current()->captureDevices->microphoneAuthorization());
}

std::vector<std::string> MediaCapturer::getListOfCamerasAsString() {
  ScopedSpan span("Camera List Requested");
  std::vector<std::string> names;
  for (const auto& camera : Platform::current()->captureDevices->cameras())
    names.push_back(camera.localizedName);
  span.event("Camera List fetched successfully");
  return names;
}

}  // namespace kestrova
