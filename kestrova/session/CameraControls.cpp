#include <kestrova/model/RoomClientError.h>
#include <kestrova/session/CameraControls.h>
#include <kestrova/tracing/Trace.h>

#include <utility>

namespace kestrova {

CameraControls::CameraControls(std::shared_ptr<MeetingContext> context,
                               std::shared_ptr<ParticipantRegistry> registry)
    : _context(std::move(context)),
      _registry(std::move(registry)),
      _state(_context->settings.webcamEnabled) {}

// ---- Toggles -----------------------------------------------------------------------------------

void CameraControls::enableWebcam(std::shared_ptr<CustomRTCMediaStream> customVideoStream) {
  const auto refusal =
      _state.claimToggle(true, {"Error in enableWebcam() -> Webcam is already enabled.",
                                "Error in enableWebcam() -> Webcam enabling is in progress."});
  if (refusal) return traceError(*refusal, {{"error", *refusal}});
  auto task = [](std::shared_ptr<CameraControls> self,
                 std::shared_ptr<CustomRTCMediaStream> custom) -> Task<void> {
    const ToggleClaim claim(self->_state);
    self->_context->setCustomVideoMediaStream(custom);
    const bool published = co_await self->enable(std::move(custom), std::nullopt);
    // What a drop of the connection interrupts is still wanted after it.
    if (published || !self->_context->roomClient()->isSocketConnected()) self->_state.setOn(true);
  };
  spawn(task(shared_from_this(), liveVideo(std::move(customVideoStream))));
}

void CameraControls::disableWebcam() {
  const auto refusal =
      _state.claimToggle(false, {"Error in disableWebcam() -> Webcam is already disabled.",
                                 "Error in disableWebcam() -> Webcam disabling in progress."});
  if (refusal) return traceError(*refusal, {{"error", *refusal}});
  spawn(shared_from_this(), disable());
}

Task<void> CameraControls::disable() {
  const ToggleClaim claim(_state);
  ScopedSpan span("Disabling Webcam");
  co_await stopVideo(span.scope());
  span.event("Disposing Video Track");
  disposeOwnCapture(_context->customVideoMediaStream());
  _context->setCustomVideoMediaStream(nullptr);
  _state.setOn(false);
}

void CameraControls::switchWebcam() {
  // Flipping a camera that is off would turn it on.
  if (_state.claimWhileOn())
    spawn(shared_from_this(), flipCamera());
  else
    traceError("Error in switchWebcam() -> Webcam is disabled or being switched.");
}

Task<void> CameraControls::flipCamera() {
  const ToggleClaim claim(_state);
  const auto custom = liveVideo(_context->customVideoMediaStream());
  const auto capturer =
      custom && custom->capturer() ? custom->capturer() : _context->roomClient()->capturer();
  if (const auto position = co_await capturer->switchCamera()) selectPosition(*position);
}

void CameraControls::selectPosition(CameraPosition position) {
  auto config = _context->mediaConfigStore->video();
  config.facingMode = position;
  _context->mediaConfigStore->recordVideo(config);
}

// ---- After the join ----------------------------------------------------------------------------

Task<void> CameraControls::startWished(Mode mode, std::vector<std::string> unsupportedCodecs,
                                       std::optional<SpanScope> parentSpan) {
  const auto self = shared_from_this();
  const bool wasToggling = _state.exchangeToggling(true);
  recordUnsupportedCodecs(unsupportedCodecs);
  if (sendsMedia(mode) && _state.on()) {
    const bool published =
        co_await enable(liveVideo(_context->customVideoMediaStream()), parentSpan);
    // What a drop of the connection interrupted is still wanted after it.
    if (!published && _context->roomClient()->isSocketConnected()) _state.setOn(false);
  } else if (_context->settings.webcamEnabled) {
    ScopedSpan span("Disabling Webcam", {}, parentSpan);
    co_await stopVideo(span.scope());
  }
  if (!wasToggling) _state.release();
}

void CameraControls::recordUnsupportedCodecs(const std::vector<std::string>& codecs) {
  if (codecs.empty() || !_context->settings.codecSwitchEnabled) return;
  const auto codec =
      videoCodecFromServer(codecs.front()).value_or(_context->mediaConfigStore->video().videoCodec);
  _context->roomClient()->consuming()->recordUnsupportedCodec(codec);
}

Task<bool> CameraControls::enable(std::shared_ptr<CustomRTCMediaStream> custom,
                                  std::optional<SpanScope> parentSpan) {
  endOnFailure(custom, weak_from_this());
  const auto described = custom ? custom->toJsonString(false) : "Custom Track not provided";
  const bool allowed = MediaCapturer::getVideoPermissionStatus() == AuthorisationStatus::authorized;
  ScopedSpan span(custom ? "Enabling Webcam with Custom Video Track"
                         : "Enabling Webcam without Custom Video Track",
                  {{"customVideoTrack", described}, {"camPermissionStatus", allowed}}, parentSpan);
  co_return co_await startVideo(std::move(custom), span.scope());
}

// ---- Capture and publication -------------------------------------------------------------------

Task<bool> CameraControls::startVideo(std::shared_ptr<CustomRTCMediaStream> videoMediaStream,
                                      SpanScope parentSpan) {
  const auto self = shared_from_this();
  if (!permitted(*_context, MediaCapturer::getVideoPermissionStatus(),
                 KestrovaError::ERROR_GET_VIDEO_MEDIA_PERMISSION_DENIED, parentSpan))
    co_return false;
  if (videoMediaStream) {
    _context->mediaConfigStore->recordVideo(
        makeVideoConfig(videoMediaStream, _context->settings.multiStream));
  } else {
    auto building = buildVideoStream(_context->mediaConfigStore->video());
    videoMediaStream = co_await std::move(building);
    if (stopIfOver(*_context)) co_return false;
  }
  if (!videoMediaStream) {
    traceError("Failed to build camera track from stored configuration.", {}, parentSpan);
    _context->onError(MediaCapturer::getListOfCamerasAsString().empty()
                          ? KestrovaError::ERROR_NO_WEBCAM_DEVICE_FOUND
                          : KestrovaError::ERROR_VIDEO_TRACK_CREATION_FAILED);
    co_return false;
  }
  co_return co_await produceVideo(std::move(videoMediaStream), std::move(parentSpan));
}

Task<std::shared_ptr<CustomRTCMediaStream>> CameraControls::buildVideoStream(
    VideoConfigSnapshot config) {
  const auto capturer = _context->roomClient()->capturer();
  auto track = co_await capturer->createVideoTrack(config.encoderConfig, config.facingMode);
  if (!track) co_return nullptr;
  CustomStreamFields fields{.videoTrack = std::move(track),
                            .multiStream = config.multiStream,
                            .videoCodec = config.videoCodec,
                            .bitrateMode = config.bitrateMode,
                            .maxLayer = config.maxLayer,
                            .encoderConfig = config.encoderConfig,
                            .facingMode = config.facingMode};
  co_return std::make_shared<CustomRTCMediaStream>(std::move(fields));
}

Task<bool> CameraControls::produceVideo(std::shared_ptr<CustomRTCMediaStream> stream,
                                        SpanScope span) {
  const auto client = _context->roomClient();
  const auto change = fallBackToVP8(*stream, span);
  std::shared_ptr<Producer> producer;
  try {
    auto producing = client->publishing()->produceLocalVideo(std::move(stream), span);
    producer = co_await std::move(producing);
  } catch (const RoomClientFailure&) {
    // Traced and reported where it arose.
  } catch (const std::exception& error) {
    traceError(error.what(), {}, span);
  }
  if (!producer) {
    traceError("Error encountered while enabling webcam in enableWebcam()", {}, span);
    client->capturer()->removeVideoTrack();
    co_await client->capturer()->stopCamera();
    co_return false;
  }
  _context->localParticipant->addStream(std::make_shared<MediaStream>(producer));
  if (change) emitCodecChangedEvent(*change);
  co_return true;
}

Task<void> CameraControls::stopVideo(SpanScope parentSpan) {
  const auto self = shared_from_this();
  const auto client = _context->roomClient();
  try {
    auto closing = client->publishing()->closeLocalVideo(true, parentSpan);
    const auto streamId = co_await std::move(closing);
    _context->localParticipant->removeStream(streamId);
  } catch (const RoomClientFailure&) {
    // There was none to stop.
  }
  co_await client->capturer()->stopCamera();
}

void CameraControls::captureFailed(std::string error) {
  // A switch under way meets the failure by itself.
  if (_state.claimWhileOn()) spawn(shared_from_this(), endAfterFailure(std::move(error)));
}

Task<void> CameraControls::endAfterFailure(std::string error) {
  const ToggleClaim claim(_state);
  ScopedSpan span("Disabling Webcam", {{"error", error}});
  co_await stopVideo(span.scope());
  _state.setOn(false);
  _context->onError(KestrovaError::ERROR_WEBCAM_TRACK_ENDED);
}

// ---- Codecs that others can't decode -----------------------------------------------------------

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
  auto causedBy = causedByPeerId ? _registry->participant(*causedByPeerId) : nullptr;
  if (!_state.claimWhileOn()) return;  // the next publication finds the codec on the list
  {
    std::scoped_lock held(_unsupportedCodecsLock);
    _codecChangeParticipant = causedBy;
    _codecChangePeerId = causedByPeerId.value_or("");
  }
  spawn(shared_from_this(), republishAsVP8({.unsupportedCodec = unsupportedCodec,
                                            .currentCodec = VideoCodec::VP8,
                                            .previousCodec = previous,
                                            .kind = std::move(kind),
                                            .causedBy = std::move(causedBy)}));
}

Task<void> CameraControls::republishAsVP8(CodecChangeInfo change) {
  const ToggleClaim claim(_state);
  const auto reason = reasonText(change.unsupportedCodec, change.causedBy);
  ScopedSpan span("Change webcam due to unsupported codec", {{"reason", reason}});
  ScopedSpan requested("Webcam change requested", {{"reason", reason}}, span.scope());
  {
    ScopedSpan disabling("Disabling Webcam", {}, span.scope());
    co_await stopVideo(disabling.scope());
  }
  auto config = _context->mediaConfigStore->video();
  config.videoCodec = VideoCodec::VP8;
  config.multiStream = _context->mediaConfigStore->requestedMultiStream();
  auto custom = liveVideo(_context->customVideoMediaStream());
  std::shared_ptr<CustomRTCMediaStream> stream;
  if (custom) {
    // The application's own pictures go on; only how they are sent changes.
    custom->setVideoCodec(config.videoCodec);
    custom->setMultiStream(config.multiStream);
    stream = custom;
  } else {
    stream = co_await buildVideoStream(config);
  }
  if (!stream) {
    traceError("Failed to build camera track from stored configuration.", {}, span.scope());
    _state.setOn(false);
    _context->onError(KestrovaError::ERROR_VIDEO_TRACK_CREATION_FAILED);
  } else if (!stopIfOver(*_context)) {
    const auto described = stream->toJsonString(false);
    const bool allowed =
        MediaCapturer::getVideoPermissionStatus() == AuthorisationStatus::authorized;
    ScopedSpan enabling(custom ? "Enabling Webcam with Custom Video Track"
                               : "Enabling Webcam without Custom Video Track",
                        {{"customVideoTrack", described}, {"camPermissionStatus", allowed}},
                        span.scope());
    _context->mediaConfigStore->recordVideo(config);
    if (co_await produceVideo(std::move(stream), enabling.scope()))
      emitCodecChangedEvent(change);
    else if (_context->roomClient()->isSocketConnected())
      _state.setOn(false);
  }
  span.event("Webcam changed successfully to handle unsupported codec");
}

/// What others can't decode is not sent: the camera goes out as VP8 instead.
std::optional<CodecChangeInfo> CameraControls::fallBackToVP8(CustomRTCMediaStream& stream,
                                                             const SpanScope& span) {
  const auto unsupported = _context->roomClient()->consuming()->unsupportedCodecs();
  const auto codec = stream.fields().videoCodec;
  if (unsupported.empty() || codec == VideoCodec::VP8) return std::nullopt;
  const auto causedBy = codecChangeParticipant();
  trace("Fallback to VP8 Codec",
        {{"reason", [&] { return reasonText(unsupported.front(), causedBy); }}}, span);
  stream.setVideoCodec(VideoCodec::VP8);
  stream.setMultiStream(_context->mediaConfigStore->requestedMultiStream());
  return CodecChangeInfo{.unsupportedCodec = unsupported.front(),
                         .currentCodec = VideoCodec::VP8,
                         .previousCodec = codec.value_or(VideoCodec::VP8),
                         .kind = "video",
                         .causedBy = causedBy};
}

std::shared_ptr<Participant> CameraControls::codecChangeParticipant() const {
  std::scoped_lock held(_unsupportedCodecsLock);
  return _codecChangeParticipant;
}

std::string CameraControls::reasonText(VideoCodec unsupported,
                                       const std::shared_ptr<Participant>& causedBy) const {
  std::string peerId;
  {
    std::scoped_lock held(_unsupportedCodecsLock);
    peerId = _codecChangePeerId;
  }
  const auto codec = std::string(text(unsupported));
  if (peerId.empty()) return "Due to one of the participant doesn't support " + codec + " Codec.";
  return "Due to Participant: " + (causedBy ? causedBy->displayName() : "N/A") + " (" + peerId +
         ") doesn't support " + codec + " Codec.";
}

void CameraControls::emitCodecChangedEvent(const CodecChangeInfo& change) {
  _context->emit([change](auto& listener) {
    trace(
        "Emitting CODEC_CHANGED Event",
        {{"previousCodec", text(change.previousCodec)},
         {"currentCodec", text(change.currentCodec)},
         {"kind", change.kind},
         {"causedBy", [&] { return change.causedBy ? change.causedBy->toJsonString() : "N/A"; }}});
    listener.onCodecChanged(change);
  });
}

}  // namespace kestrova
