#include <kestrova/session/CameraControls.h>
#include <kestrova/tracing/Trace.h>

#include <utility>

namespace kestrova {

const LocalMedium::Texts& CameraControls::texts() {
  static const auto& texts =
      *new Texts{.on = {.alreadyThere = "Error in enableWebcam() -> Webcam is already enabled.",
                        .busy = "Error in enableWebcam() -> Webcam enabling is in progress."},
                 .off = {.alreadyThere = "Error in disableWebcam() -> Webcam is already disabled.",
                         .busy = "Error in disableWebcam() -> Webcam disabling in progress."},
                 .enablingCustom = "Enabling Webcam with Custom Video Track",
                 .enabling = "Enabling Webcam without Custom Video Track",
                 .customKey = "customVideoTrack",
                 .permissionKey = "camPermissionStatus",
                 .disabling = "Disabling Webcam",
                 .disposing = "Disposing Video Track",
                 .publishFailed = "Error encountered while enabling webcam in enableWebcam()",
                 .permissionDenied = KestrovaError::ERROR_GET_VIDEO_MEDIA_PERMISSION_DENIED,
                 .trackEnded = KestrovaError::ERROR_WEBCAM_TRACK_ENDED,
                 .invalidTrack = KestrovaError::ERROR_INVALID_CUSTOM_VIDEO_TRACK,
                 .isAudio = false,
                 .holdsToggle = true};
  return texts;
}

/// For as long as it lives a start is one for others' sake.
class CameraControls::Republishing {
public:
  Republishing(CameraControls& camera, CodecChangeInfo change) : _camera(camera) {
    _camera._isRepublishing = true;
    _camera._change = std::move(change);
  }
  ~Republishing() {
    _camera._isRepublishing = false;
    _camera._change.reset();
  }
  Republishing(const Republishing&) = delete;
  Republishing& operator=(const Republishing&) = delete;

private:
  CameraControls& _camera;
};

CameraControls::CameraControls(std::shared_ptr<MeetingContext> context,
                               std::shared_ptr<ParticipantRegistry> registry)
    : LocalMedium(context, texts(), context->settings.webcamEnabled),
      _registry(std::move(registry)),
      _fallback(context) {}

// ---- Which camera ------------------------------------------------------------------------------

void CameraControls::switchWebcam() {
  spawn(shared_from_this(), flipCamera());
}

Task<void> CameraControls::flipCamera() {
  const auto turn = co_await _turns.acquire();
  const auto custom = liveCustomStream();
  const auto capturer = runningCapturer();
  if (!custom && !capturer->isCameraRunning())
    capturer->setCameraPosition(_context->mediaConfigStore->video().facingMode);
  // A camera that is off is not opened by this; the next capture takes the other one.
  if (const auto position = co_await capturer->switchCamera()) selectPosition(*position);
}

void CameraControls::selectPosition(CameraPosition position) {
  _context->mediaConfigStore->recordFacingMode(position);
}

/// Of the application's track, where it is the library's, or the meeting's own.
std::shared_ptr<MediaCapturer> CameraControls::runningCapturer() const {
  const auto custom = liveCustomStream();
  return custom && custom->capturer() ? custom->capturer() : _context->roomClient()->capturer();
}

// ---- What the pictures go through --------------------------------------------------------------

void CameraControls::setVideoProcessor(std::shared_ptr<KestrovaVideoProcessor> processor) {
  {
    std::scoped_lock held(_processorLock);
    _videoProcessor.swap(processor);
  }
  handProcessorOn(*runningCapturer());
}

std::shared_ptr<KestrovaVideoProcessor> CameraControls::videoProcessor() const {
  std::scoped_lock held(_processorLock);
  return _videoProcessor;
}

/// Without a lock held; what is set in between counts.
void CameraControls::handProcessorOn(MediaCapturer& capturer) const {
  for (auto processor = videoProcessor();;) {
    capturer.setVideoProcessor(processor);
    auto wished = videoProcessor();
    if (wished == processor) return;
    processor = std::move(wished);
  }
}

/// The capturer's own goes with its track; here, so that none comes back with the next.
void CameraControls::turnedOff() {
  std::shared_ptr<KestrovaVideoProcessor> dropped;
  std::scoped_lock held(_processorLock);
  dropped.swap(_videoProcessor);
}

void CameraControls::passProcessor(MediaCapturer& capturer) {
  if (videoProcessor()) handProcessorOn(capturer);
}

// ---- Capture and publication -------------------------------------------------------------------

AuthorisationStatus CameraControls::permission() const {
  return MediaCapturer::getVideoPermissionStatus();
}

LocalMedium::Stream CameraControls::customStream() const {
  return _context->sending->customVideoMediaStream();
}

void CameraControls::setCustomStream(Stream stream) {
  _context->sending->setCustomVideoMediaStream(std::move(stream));
}

LocalMedium::Track CameraControls::trackOf(const CustomRTCMediaStream& stream) const {
  return stream.videoTrack();
}

void CameraControls::record(const Stream& custom) {
  if (const auto capturer = custom->capturer()) passProcessor(*capturer);
  // Another codec for others' sake is not what the application asked for.
  if (!_isRepublishing)
    _context->mediaConfigStore->recordVideo(
        makeVideoConfig(custom, _context->settings.multiStream));
}

Task<LocalMedium::Stream> CameraControls::capture(Connection connection, SpanScope span) {
  const auto config = _context->mediaConfigStore->video();
  const auto capturer = _context->roomClient()->capturer();
  passProcessor(*capturer);
  auto track = co_await capturer->createVideoTrack(config.encoderConfig, config.facingMode);
  if (!track) {
    if (!connection.isCurrent()) co_return nullptr;
    traceError("Failed to build camera track from stored configuration.", {}, span);
    const auto& error = MediaCapturer::getListOfCamerasAsString().empty()
                            ? KestrovaError::ERROR_NO_WEBCAM_DEVICE_FOUND
                            : KestrovaError::ERROR_VIDEO_TRACK_CREATION_FAILED;
    _context->onError(error.withCause(capturer->startFailure(MediaKind::video)));
    co_return nullptr;
  }
  CustomStreamFields fields{.videoTrack = std::move(track),
                            .multiStream = config.multiStream,
                            .videoCodec = config.videoCodec,
                            .bitrateMode = config.bitrateMode,
                            .maxLayer = config.maxLayer,
                            .encoderConfig = config.encoderConfig,
                            .facingMode = config.facingMode};
  if (_isRepublishing) {
    fields.videoCodec = VideoCodec::VP8;
    fields.multiStream = _context->mediaConfigStore->requestedMultiStream();
  }
  co_return std::make_shared<CustomRTCMediaStream>(std::move(fields));
}

Task<std::shared_ptr<Producer>> CameraControls::produce(Stream stream, Connection connection,
                                                        SpanScope span) {
  if (!_isRepublishing) _change = _fallback.apply(*stream, span);
  _fallback.setSent(stream->fields().videoCodec.value_or(VideoCodec::VP8));
  return _context->roomClient()->publishing()->produceLocalVideo(
      std::move(stream), std::move(connection), std::move(span));
}

void CameraControls::published() {
  if (const auto change = std::exchange(_change, std::nullopt))
    _fallback.emitCodecChangedEvent(*change);
  // Somebody may have said so while this was being published.
  const auto unsupported = _context->roomClient()->consuming()->unsupportedCodecs();
  if (unsupported.empty() || _fallback.isSentAsVP8()) return;
  spawn(shared_from_this(),
        republish({.unsupportedCodec = unsupported.front(),
                   .currentCodec = VideoCodec::VP8,
                   .previousCodec = _context->mediaConfigStore->video().videoCodec,
                   .kind = "video"},
                  false));
}

Task<std::string> CameraControls::close(std::optional<Connection> telling, SpanScope span) {
  return _context->roomClient()->publishing()->closeLocalVideo(std::move(telling), std::move(span));
}

Task<std::optional<std::string>> CameraControls::cleanup() {
  return _context->roomClient()->cleanupVideo();
}

Task<void> CameraControls::releaseCapture(Track track) {
  const auto capturer = _context->roomClient()->capturer();
  capturer->removeVideoTrack(track);
  co_await capturer->stopUnusedCamera();
}

// ---- Codecs that others can't decode -----------------------------------------------------------

void CameraControls::recordUnsupportedCodecs(const std::vector<std::string>& codecs) {
  if (codecs.empty() || !_context->settings.codecSwitchEnabled) return;
  const auto codec =
      videoCodecFromServer(codecs.front()).value_or(_context->mediaConfigStore->video().videoCodec);
  _context->roomClient()->consuming()->recordUnsupportedCodec(codec);
}

void CameraControls::switchRoomUnsupportedCodecs(const std::vector<std::string>& codecs) {
  if (codecs.empty()) return;
  const auto codec =
      videoCodecFromServer(codecs.front()).value_or(_context->mediaConfigStore->video().videoCodec);
  performVP8CodecFallback(codec, "video", std::nullopt);
}

void CameraControls::performVP8CodecFallback(VideoCodec unsupportedCodec, std::string kind,
                                             const std::optional<std::string>& causedByPeerId) {
  const auto previous = _context->mediaConfigStore->video().videoCodec;
  if (previous == VideoCodec::VP8 || !_context->settings.codecSwitchEnabled) return;
  _context->roomClient()->consuming()->recordUnsupportedCodec(unsupportedCodec);
  if (_state.isOn() && _fallback.isSentAsVP8()) return;  // for somebody else's sake
  auto causedBy = causedByPeerId ? _registry->participant(*causedByPeerId) : nullptr;
  if (!_state.takeWhileOn()) return;  // the next publication finds the codec on the list
  _fallback.setCause(causedBy, causedByPeerId);
  spawn(shared_from_this(), republish({.unsupportedCodec = unsupportedCodec,
                                       .currentCodec = VideoCodec::VP8,
                                       .previousCodec = previous,
                                       .kind = std::move(kind),
                                       .causedBy = std::move(causedBy)},
                                      true));
}

Task<void> CameraControls::republish(CodecChangeInfo change, bool hasToggle) {
  std::optional<ToggleLoan> loan;
  if (hasToggle) loan.emplace(_state);
  const auto turn = co_await _turns.acquire();
  if (!hasToggle && _state.take()) loan.emplace(_state);
  const auto connection = _context->connections->current();
  if (!isRunning(connection)) co_return;  // the next publication finds the codec on the list
  const auto reason = _fallback.reasonText(change.unsupportedCodec);
  ScopedSpan span("Change webcam due to unsupported codec", {{"reason", reason}});
  ScopedSpan requested("Webcam change requested", {{"reason", reason}}, span.scope());
  {
    ScopedSpan disabling("Disabling Webcam", {}, span.scope());
    co_await stop(disabling.scope());
  }
  if (const auto custom = liveCustomStream()) {
    // The application's own pictures go on; only how they are sent changes.
    custom->setVideoCodec(VideoCodec::VP8);
    custom->setMultiStream(_context->mediaConfigStore->requestedMultiStream());
  }
  {
    const Republishing republishing(*this, std::move(change));
    auto restarting = startWhileWished(connection, span.scope());
    co_await std::move(restarting);
  }
  if (!isRunning(connection)) {
    for (auto* each : {&requested, &span}) each->interrupt("the webcam did not start again");
    co_return;
  }
  span.event("Webcam changed successfully to handle unsupported codec");
}

}  // namespace kestrova
