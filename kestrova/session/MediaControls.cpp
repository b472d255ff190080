#include <kestrova/session/MediaControls.h>
#include <kestrova/signalling/RoomClientError.h>
#include <kestrova/tracing/Trace.h>

#include <utility>

namespace kestrova {

MediaControls::MediaControls(std::shared_ptr<MeetingContext> context)
    : _context(std::move(context)),
      _micOn(_context->settings.micEnabled),
      _camOn(_context->settings.webcamEnabled) {}

bool MediaControls::micOn() const {
  std::scoped_lock held(_mediaStateLock);
  return _micOn;
}

bool MediaControls::camOn() const {
  std::scoped_lock held(_mediaStateLock);
  return _camOn;
}

// ---- After the join ----------------------------------------------------------------------------

Task<void> MediaControls::startWishedMedia(Mode mode, std::vector<std::string> unsupportedCodecs,
                                           std::optional<SpanScope> joinSpan) {
  const auto self = shared_from_this();
  co_await cleanup();
  if (stopIfOver()) co_return;
  co_await startWishedAudio(mode, joinSpan);
  if (stopIfOver()) co_return;
  bool wasToggling = false;
  {
    std::scoped_lock held(_mediaStateLock);
    wasToggling = std::exchange(_isVideoToggling, true);
  }
  recordUnsupportedCodecs(unsupportedCodecs);
  co_await startWishedVideo(mode, joinSpan);
  if (stopIfOver()) co_return;
  trace("Meeting Joined", {}, joinSpan);
  std::scoped_lock held(_mediaStateLock);
  if (!wasToggling) _isVideoToggling = false;
}

/// The teardown may have gone by between two steps: what they captured must not run on.
bool MediaControls::stopIfOver() {
  if (!_context->isOver()) return false;
  _context->roomClient()->capturer()->stop();
  return true;
}

Task<void> MediaControls::cleanup() {
  const auto client = _context->roomClient();
  const auto& local = _context->localParticipant;
  if (const auto gone = co_await client->cleanupAudio()) local->removeStream(*gone);
  if (const auto gone = co_await client->cleanupVideo()) local->removeStream(*gone);
  if (client->capturer()->isCameraRunning()) co_await client->capturer()->stopCamera();
}

Task<void> MediaControls::startWishedAudio(Mode mode, std::optional<SpanScope> joinSpan) {
  if (sendsMedia(mode) && micOn()) {
    auto custom = _context->customAudioMediaStream();
    if (custom && !custom->audioTrack()) custom.reset();
    const auto described = custom ? custom->toJsonString(true) : "Custom Track not provided";
    const bool allowed =
        MediaCapturer::getAudioPermissionStatus() == AuthorisationStatus::authorized;
    ScopedSpan span(custom ? "Enabling Microphone with Custom Audio Track"
                           : "Enabling Microphone without Custom Audio Track",
                    {{"customAudioTrack", described}, {"micPermissionStatus", allowed}}, joinSpan);
    co_await startAudio(std::move(custom), span.scope());
  } else if (_context->settings.micEnabled) {
    ScopedSpan span("Disabling Microphone", {}, joinSpan);
    co_await stopAudio(span.scope());
  }
}

Task<void> MediaControls::startWishedVideo(Mode mode, std::optional<SpanScope> joinSpan) {
  if (sendsMedia(mode) && camOn()) {
    auto custom = _context->customVideoMediaStream();
    if (custom && !custom->videoTrack()) custom.reset();
    const auto described = custom ? custom->toJsonString(false) : "Custom Track not provided";
    const bool allowed =
        MediaCapturer::getVideoPermissionStatus() == AuthorisationStatus::authorized;
    ScopedSpan span(custom ? "Enabling Webcam with Custom Video Track"
                           : "Enabling Webcam without Custom Video Track",
                    {{"customVideoTrack", described}, {"camPermissionStatus", allowed}}, joinSpan);
    co_await startVideo(std::move(custom), span.scope());
  } else if (_context->settings.webcamEnabled) {
    ScopedSpan span("Disabling Webcam", {}, joinSpan);
    co_await stopVideo(span.scope());
  }
}

void MediaControls::recordUnsupportedCodecs(const std::vector<std::string>& codecs) {
  if (codecs.empty() || !_context->settings.codecSwitchEnabled) return;
  const auto codec =
      videoCodecFromServer(codecs.front()).value_or(_context->mediaConfigStore->video().videoCodec);
  _context->roomClient()->consuming()->recordUnsupportedCodec(codec);
}

// ---- Microphone --------------------------------------------------------------------------------

bool MediaControls::permitted(AuthorisationStatus status, const KestrovaError& error,
                              const SpanScope& span) {
  if (status == AuthorisationStatus::authorized || status == AuthorisationStatus::notDetermined)
    return true;
  const auto line = error.message();
  traceError(line, {}, span);
  _context->onError(error);
  return false;
}

Task<void> MediaControls::startAudio(std::shared_ptr<CustomRTCMediaStream> audioMediaStream,
                                     SpanScope parentSpan) {
  const auto self = shared_from_this();
  if (!permitted(MediaCapturer::getAudioPermissionStatus(),
                 KestrovaError::ERROR_GET_AUDIO_MEDIA_PERMISSION_DENIED, parentSpan))
    co_return;
  if (audioMediaStream)
    _context->mediaConfigStore->recordAudio(makeAudioConfig(audioMediaStream));
  else
    audioMediaStream = buildAudioStream(_context->mediaConfigStore->audio());
  if (!audioMediaStream) {
    traceError("Error in unmuteMic() -> Microphone access unavailable.", {}, parentSpan);
    _context->onError(KestrovaError::ERROR_MICROPHONE_ACCESS_UNAVAILABLE);
    co_return;
  }
  co_await produceAudio(std::move(audioMediaStream), std::move(parentSpan));
}

std::shared_ptr<CustomRTCMediaStream> MediaControls::buildAudioStream(
    const AudioConfigSnapshot& config) {
  auto track =
      _context->roomClient()->capturer()->createAudioTrack(audioConstraints(config.noiseConfig));
  if (!track) return nullptr;
  return std::make_shared<CustomRTCMediaStream>(
      CustomStreamFields{.audioTrack = std::move(track),
                         .audioEncoderConfig = config.audioEncoderConfig,
                         .noiseConfig = config.noiseConfig});
}

Task<void> MediaControls::produceAudio(std::shared_ptr<CustomRTCMediaStream> stream,
                                       SpanScope span) {
  std::shared_ptr<Producer> producer;
  try {
    auto producing =
        _context->roomClient()->publishing()->produceLocalAudio(std::move(stream), span);
    producer = co_await std::move(producing);
  } catch (const RoomClientFailure&) {
    // Traced and reported where it arose.
  }
  if (!producer) {
    traceError("Error encountered while enabling microphone in unmuteMic().", {}, span);
    // What nobody gets to hear is not captured either.
    _context->roomClient()->capturer()->removeAudioTrack();
    co_return;
  }
  _context->localParticipant->addStream(std::make_shared<MediaStream>(producer));
}

Task<void> MediaControls::stopAudio(SpanScope parentSpan) {
  const auto self = shared_from_this();
  try {
    auto closing = _context->roomClient()->publishing()->closeLocalAudio(true, parentSpan);
    const auto streamId = co_await std::move(closing);
    _context->localParticipant->removeStream(streamId);
  } catch (const RoomClientFailure&) {
    // There was none to stop.
  }
}

// ---- Camera ------------------------------------------------------------------------------------

Task<void> MediaControls::startVideo(std::shared_ptr<CustomRTCMediaStream> videoMediaStream,
                                     SpanScope parentSpan) {
  const auto self = shared_from_this();
  if (!permitted(MediaCapturer::getVideoPermissionStatus(),
                 KestrovaError::ERROR_GET_VIDEO_MEDIA_PERMISSION_DENIED, parentSpan))
    co_return;
  if (videoMediaStream) {
    _context->mediaConfigStore->recordVideo(
        makeVideoConfig(videoMediaStream, _context->settings.multiStream));
  } else {
    auto building = buildVideoStream(_context->mediaConfigStore->video());
    videoMediaStream = co_await std::move(building);
    if (stopIfOver()) co_return;
  }
  if (!videoMediaStream) {
    traceError("Failed to build camera track from stored configuration.", {}, parentSpan);
    _context->onError(MediaCapturer::getListOfCamerasAsString().empty()
                          ? KestrovaError::ERROR_NO_WEBCAM_DEVICE_FOUND
                          : KestrovaError::ERROR_VIDEO_TRACK_CREATION_FAILED);
    co_return;
  }
  co_await produceVideo(std::move(videoMediaStream), std::move(parentSpan));
}

Task<std::shared_ptr<CustomRTCMediaStream>> MediaControls::buildVideoStream(
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

Task<void> MediaControls::produceVideo(std::shared_ptr<CustomRTCMediaStream> stream,
                                       SpanScope span) {
  const auto change = fallBackToVP8(*stream, span);
  std::shared_ptr<Producer> producer;
  try {
    auto producing =
        _context->roomClient()->publishing()->produceLocalVideo(std::move(stream), span);
    producer = co_await std::move(producing);
  } catch (const RoomClientFailure&) {
    // Traced and reported where it arose.
  }
  if (!producer) {
    traceError("Error encountered while enabling webcam in enableWebcam()", {}, span);
    _context->roomClient()->capturer()->removeVideoTrack();
    co_await _context->roomClient()->capturer()->stopCamera();
    co_return;
  }
  _context->localParticipant->addStream(std::make_shared<MediaStream>(producer));
  if (!change) co_return;
  _context->emit([info = *change](auto& listener) {
    trace("Emitting CODEC_CHANGED Event",
          {{"previousCodec", text(info.previousCodec)},
           {"currentCodec", text(info.currentCodec)},
           {"kind", info.kind},
           {"causedBy", [&] { return info.causedBy ? info.causedBy->toJsonString() : "N/A"; }}});
    listener.onCodecChanged(info);
  });
}

/// What others can't decode is not sent: the camera goes out as VP8 instead.
std::optional<CodecChangeInfo> MediaControls::fallBackToVP8(CustomRTCMediaStream& stream,
                                                            const SpanScope& span) {
  const auto unsupported = _context->roomClient()->consuming()->unsupportedCodecs();
  const auto codec = stream.fields().videoCodec;
  if (unsupported.empty() || codec == VideoCodec::VP8) return std::nullopt;
  const auto unsupportedName = std::string(text(unsupported.front()));
  trace("Fallback to VP8 Codec",
        {{"reason",
          [&] {
            return "Due to one of the participant doesn't support " + unsupportedName + " Codec.";
          }}},
        span);
  stream.setVideoCodec(VideoCodec::VP8);
  stream.setMultiStream(_context->mediaConfigStore->requestedMultiStream());
  return CodecChangeInfo{.unsupportedCodec = unsupported.front(),
                         .currentCodec = VideoCodec::VP8,
                         .previousCodec = codec.value_or(VideoCodec::VP8),
                         .kind = "video"};
}

Task<void> MediaControls::stopVideo(SpanScope parentSpan) {
  const auto self = shared_from_this();
  try {
    auto closing = _context->roomClient()->publishing()->closeLocalVideo(true, parentSpan);
    const auto streamId = co_await std::move(closing);
    _context->localParticipant->removeStream(streamId);
  } catch (const RoomClientFailure&) {
    // There was none to stop.
  }
  co_await _context->roomClient()->capturer()->stopCamera();
}

}  // namespace kestrova
