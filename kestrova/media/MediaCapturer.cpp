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

}  // namespace

std::shared_ptr<MediaCapturer> MediaCapturer::make() {
  std::shared_ptr<MediaCapturer> capturer(new MediaCapturer(Platform::current()));
  capturer->renewCamera();
  return capturer;
}

MediaCapturer::MediaCapturer(std::shared_ptr<const Platform> platform)
    : _platform(std::move(platform)),
      _peerConnectionFactory(_platform->peerConnectionFactory()),
      _cameraSessionQueue(SerialQueue::make("live.kestrova.camera.session")),
      _videoSource(_peerConnectionFactory->videoSource()) {}

MediaCapturer::~MediaCapturer() {
  if (!_videoCapturer || !_videoCapturer->isRunning()) return;
  // The capturer is kept until the device has let go.
  _videoCapturer->stopCapture([keep = _videoCapturer] {});
}

std::shared_ptr<RTCCameraVideoCapturer> MediaCapturer::videoCapturer() const {
  std::scoped_lock held(_mediaLock);
  return _videoCapturer;
}

bool MediaCapturer::isCameraRunning() const {
  return videoCapturer()->isRunning();
}

/// What "the camera" stands for may be another thing than the last time.
void MediaCapturer::renewCamera() {
  std::shared_ptr<RTCCameraVideoCapturer> fresh = _platform->captureDevices->makeCameraCapturer();
  listenTo(*fresh);
  std::scoped_lock held(_mediaLock);  // goes before the one that is replaced
  _videoCapturer.swap(fresh);
}

void MediaCapturer::listenTo(RTCCameraVideoCapturer& camera) {
  camera.onFrame([weak = weak_from_this()](const VideoFrame& frame) {
    if (const auto self = weak.lock()) self->capturer(frame);
  });
  camera.onFailure([weak = weak_from_this()](const std::string& error) {
    const auto self = weak.lock();
    if (!self) return;
    std::uint64_t session = 0;
    {
      std::scoped_lock held(self->_mediaLock);
      session = self->_cameraSession;
    }
    auto handle = [](std::weak_ptr<MediaCapturer> held, std::uint64_t failed,
                     std::string cause) -> Task<void> {
      if (const auto capturer = held.lock())
        co_await capturer->cameraFailed(failed, std::move(cause));
    };
    spawnOn(*self->_cameraSessionQueue, handle(weak, session, error));
  });
}

void MediaCapturer::capturer(const VideoFrame& didCapture) {
  const auto source = videoSource();
  _frames.process(didCapture, *source);
}

void MediaCapturer::setVideoProcessor(std::shared_ptr<KestrovaVideoProcessor> processor) {
  _frames.setVideoProcessor(std::move(processor));
}

bool MediaCapturer::feeds(const Track& track) const {
  std::scoped_lock held(_mediaLock);
  return track && _videoTrack == track;
}

// ---- Camera ------------------------------------------------------------------------------------

Task<std::shared_ptr<RTCVideoTrack>> MediaCapturer::createVideoTrack(
    CustomVideoTrackConfig encoderConfig, CameraPosition facingMode) {
  const auto& row = videoTrackPreset(encoderConfig);
  return captureOnQueue(
      {row.width, row.height, defaultFrameRate}, facingMode,
      "Video source was replaced during video-track creation; aborting camera publish.");
}

Task<std::shared_ptr<RTCVideoTrack>> MediaCapturer::createCustomVideoStream(
    CameraPosition cameraPosition, CaptureFormat videoConfig) {
  return captureOnQueue(videoConfig, cameraPosition,
                        "Video source was replaced during custom video-track creation; aborting.");
}

Task<std::shared_ptr<RTCVideoTrack>> MediaCapturer::captureOnQueue(CaptureFormat output,
                                                                   CameraPosition position,
                                                                   const char* replaced) {
  const auto self = shared_from_this();
  auto capturing =
      boost::asio::co_spawn(_cameraSessionQueue->executor(), capture(output, position, replaced),
                            boost::asio::use_awaitable);
  co_return co_await std::move(capturing);
}

Task<std::shared_ptr<RTCVideoTrack>> MediaCapturer::capture(CaptureFormat output,
                                                            CameraPosition position,
                                                            const char* replaced) {
  const auto self = shared_from_this();
  const auto turn = co_await _session.acquire();
  if (isCameraRunning() && !co_await stopSession())
    traceRouted("Camera stop timed out during video-track creation.");
  if (!isCameraRunning()) renewCamera();
  // A camera of this system serves one process at a time.
  traceDebug("Multitasking not supported on this device!");

  auto device = getCameraDevice(*_platform->captureDevices, position);
  setStartFailure(MediaKind::video, device ? "" : "there is no camera that faces this way");
  if (!device) co_return nullptr;
  const auto source = videoSource();
  source->adaptOutputFormat(output.width, output.height, output.fps);
  if (!co_await startSession(*device, output.fps)) co_return nullptr;
  setCameraPosition(position);
  co_return bindTrackIfSourceCurrent(source, replaced);
}

Task<bool> MediaCapturer::stopSession() {
  auto stop = [this](Completion<bool> done) {
    _platform->scheduler->detachedAfter(captureTimeout, [done] { done(false); });
    videoCapturer()->stopCapture([done] { done(true); });
  };
  co_return co_await awaitCallback<bool>(std::move(stop));
}

Task<bool> MediaCapturer::startSession(AVCaptureDevice device, int fps) {
  enum class Outcome { started, failed, timedOut };
  {
    std::scoped_lock held(_mediaLock);
    ++_cameraSession;
    _frameRate = fps;
  }
  auto start = [this, &device, fps](Completion<Outcome> done) {
    _platform->scheduler->detachedAfter(captureTimeout, [done] { done(Outcome::timedOut); });
    videoCapturer()->startCapture(device, device.activeFormat, fps,
                                  [weak = weak_from_this(), done](const std::string& error) {
                                    if (!error.empty()) {
                                      traceError([&] { return "Failed to start video! " + error; });
                                      if (const auto self = weak.lock())
                                        self->setStartFailure(MediaKind::video, error);
                                    }
                                    done(error.empty() ? Outcome::started : Outcome::failed);
                                  });
  };
  const auto outcome = co_await awaitCallback<Outcome>(std::move(start));
  if (outcome == Outcome::timedOut) {
    traceRouted("Camera start timed out during video-track creation.");
    setStartFailure(MediaKind::video, "timed out: the camera did not start");
    videoCapturer()->stopCapture([] {});  // should it start after all
  }
  co_return outcome == Outcome::started;
}

std::shared_ptr<RTCVideoTrack> MediaCapturer::bindTrackIfSourceCurrent(
    const std::shared_ptr<RTCVideoSource>& source, const char* replaced) {
  auto track = _peerConnectionFactory->videoTrack(source, cameraTrackId);
  {
    std::scoped_lock held(_mediaLock);
    if (_videoSource == source) {
      _videoTrack.swap(track);
      return _videoTrack;
    }
  }
  traceRouted(replaced);
  videoCapturer()->stopCapture([] {});
  return nullptr;
}

Task<std::optional<CameraPosition>> MediaCapturer::switchCamera() {
  const auto self = shared_from_this();
  auto flipping = boost::asio::co_spawn(_cameraSessionQueue->executor(), flipCamera(),
                                        boost::asio::use_awaitable);
  co_return co_await std::move(flipping);
}

Task<std::optional<CameraPosition>> MediaCapturer::flipCamera() {
  const auto self = shared_from_this();
  const auto turn = co_await _session.acquire();
  const auto wanted =
      cameraPosition() == CameraPosition::front ? CameraPosition::back : CameraPosition::front;
  const auto device = getCameraDevice(*_platform->captureDevices, wanted);
  const char* name = wanted == CameraPosition::back ? "Back Camera" : "Front Camera";
  if (!device) {
    // The picture goes on as it is.
    traceError([&] { return std::string("There is no other camera to switch to: ") + name; });
    co_return std::nullopt;
  }
  if (isCameraRunning()) co_await stopSession();
  std::shared_ptr<RTCVideoSource> source;
  int fps = defaultFrameRate;
  bool isOn = false;
  {
    std::scoped_lock held(_mediaLock);
    _cameraPosition = wanted;
    source = _videoSource;
    fps = _frameRate;
    isOn = _videoTrack != nullptr;
  }
  if (isOn) {
    if (!co_await startSession(*device, fps)) {
      co_await goBack(source, fps);
      co_return std::nullopt;
    }
    if (videoSource() != source) {
      // The track was removed meanwhile: what nobody sees is not captured either.
      videoCapturer()->stopCapture([] {});
      co_return std::nullopt;
    }
  }
  trace([&] { return std::string("Camera Switched to: ") + name; });
  co_return wanted;
}

/// The other camera can't be had: the one before goes on. Without that one, too, the track has
/// ended.
Task<void> MediaCapturer::goBack(std::shared_ptr<RTCVideoSource> source, int fps) {
  auto before = CameraPosition::front;
  {
    std::scoped_lock held(_mediaLock);
    if (_cameraPosition == CameraPosition::front) before = CameraPosition::back;
    _cameraPosition = before;
    if (_videoSource != source) co_return;
  }
  const auto device = getCameraDevice(*_platform->captureDevices, before);
  const bool runs = device && co_await startSession(*device, fps);
  if (videoSource() != source) {
    if (runs) videoCapturer()->stopCapture([] {});  // the track was removed meanwhile
  } else if (!runs) {
    if (const auto ended = endCameraTrack())
      tellCaptureFailed(MediaKind::video, ended, "no camera could be opened");
  }
}

Task<void> MediaCapturer::stopUnusedCamera() {
  const auto self = shared_from_this();
  const auto turn = co_await _session.acquire();
  {
    std::scoped_lock held(_mediaLock);
    if (_videoTrack) co_return;
  }
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
  setStartFailure(MediaKind::audio, microphone ? "" : "there is no microphone");
  if (!microphone) return nullptr;
  auto mark = std::make_shared<std::atomic<bool>>(false);
  const auto tell = [weak = weak_from_this(), mark](const std::string& error) {
    mark->store(true);
    const auto self = weak.lock();
    if (!self) return;
    // Elsewhere: a capturer can't be ended on its own thread.
    boost::asio::post(self->_platform->background, [weak, mark, error] {
      if (const auto capturer = weak.lock()) capturer->microphoneFailed(mark, error);
    });
  };
  microphone->onFailure(tell);
  const auto source = _peerConnectionFactory->audioSource(constraints);
  if (!microphone->start(source)) {
    setStartFailure(MediaKind::audio, "the microphone can't be opened");
    return nullptr;
  }
  auto track = _peerConnectionFactory->audioTrack(source, microphoneTrackId);
  {
    std::scoped_lock held(_mediaLock);
    _microphone.swap(microphone);
    _audioTrack = track;
    _microphoneMark = mark;
  }
  if (mark->load()) tell("ended at once");  // what was told before came too early to be found
  return track;
}

std::shared_ptr<RTCAudioTrack> MediaCapturer::createCustomAudioTrack(
    const std::map<std::string, std::string>& constraints) {
  return createAudioTrack(constraints);
}

std::shared_ptr<RTCAudioTrack> MediaCapturer::endMicrophone(const Track& only) {
  std::unique_ptr<MicrophoneCapturer> microphone;
  std::shared_ptr<RTCAudioTrack> track;
  {
    std::scoped_lock held(_mediaLock);
    if (only && _audioTrack != only) return nullptr;
    microphone.swap(_microphone);
    track.swap(_audioTrack);
    _microphoneMark.reset();
  }
  if (microphone) microphone->stop();
  if (track) track->setEnabled(false);
  return track;
}

std::shared_ptr<RTCVideoTrack> MediaCapturer::endCameraTrack(const Track& only) {
  auto fresh = _peerConnectionFactory->videoSource();
  std::shared_ptr<RTCVideoTrack> track;
  {
    std::scoped_lock held(_mediaLock);
    if (only && _videoTrack != only) return nullptr;
    _videoSource.swap(fresh);
    track.swap(_videoTrack);
  }
  // First, so that no picture of the camera as it is gets through behind the processor.
  if (track) track->setEnabled(false);
  _frames.forget();
  return track;
}

void MediaCapturer::removeAudioTrack(const Track& track) {
  if (track) endMicrophone(track);
}

void MediaCapturer::removeVideoTrack(const Track& track) {
  if (track) endCameraTrack(track);
}

void MediaCapturer::stop() {
  endCameraTrack();
  endMicrophone();
  if (isCameraRunning()) videoCapturer()->stopCapture([] {});
}

std::string MediaCapturer::startFailure(MediaKind kind) const {
  std::scoped_lock held(_mediaLock);
  return _startFailures.at(static_cast<std::size_t>(kind));
}

void MediaCapturer::setStartFailure(MediaKind kind, std::string cause) {
  std::scoped_lock held(_mediaLock);
  _startFailures.at(static_cast<std::size_t>(kind)) = std::move(cause);
}

// ---- Captures that end by themselves -----------------------------------------------------------

void MediaCapturer::onCaptureFailed(CaptureFailedHandler handler) {
  std::scoped_lock held(_mediaLock);
  _captureFailed.swap(handler);
}

Task<void> MediaCapturer::cameraFailed(std::uint64_t session, std::string error) {
  const auto self = shared_from_this();
  const auto turn = co_await _session.acquire();
  {
    std::scoped_lock held(_mediaLock);
    if (_cameraSession != session || !_videoTrack) co_return;  // nobody misses that capture
  }
  if (isCameraRunning()) co_await stopSession();
  tellCaptureFailed(MediaKind::video, endCameraTrack(), error);
}

void MediaCapturer::microphoneFailed(const MicrophoneMark& mark, const std::string& error) {
  Track track;
  {
    std::scoped_lock held(_mediaLock);
    if (_microphoneMark != mark) return;
    track = _audioTrack;
  }
  if (endMicrophone(track)) tellCaptureFailed(MediaKind::audio, track, error);
}

void MediaCapturer::tellCaptureFailed(MediaKind kind,
                                      const std::shared_ptr<RTCMediaStreamTrack>& track,
                                      const std::string& error) {
  traceError("Capture ended by itself",
             {{"kind", kind == MediaKind::video ? "video" : "audio"}, {"error", error}});
  CaptureFailedHandler handler;
  {
    std::scoped_lock held(_mediaLock);
    handler = _captureFailed;
  }
  if (handler) handler(kind, track, error);
}

// ---- Custom tracks -----------------------------------------------------------------------------

void MediaCapturer::disposeCustomTrack(const std::shared_ptr<CustomRTCMediaStream>& stream) {
  if (stream) stream->disposeTracks();
}

}  // namespace kestrova
