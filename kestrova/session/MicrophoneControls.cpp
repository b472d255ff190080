#include <kestrova/session/MicrophoneControls.h>
#include <kestrova/tracing/Trace.h>

#include <utility>

namespace kestrova {

const LocalMedium::Texts& MicrophoneControls::texts() {
  static const auto& texts =
      *new Texts{.on = {.alreadyThere = "Error in unmuteMic() -> Microphone is already enabled.",
                        .busy = "Error in unmuteMic() -> Microphone enabling is in progress."},
                 .off = {.alreadyThere = "Error in muteMic() -> Microphone is already disabled.",
                         .busy = "Error in muteMic() -> Microphone disabling is in progress."},
                 .enablingCustom = "Enabling Microphone with Custom Audio Track",
                 .enabling = "Enabling Microphone without Custom Audio Track",
                 .customKey = "customAudioTrack",
                 .permissionKey = "micPermissionStatus",
                 .disabling = "Disabling Microphone",
                 .disposing = "Disposing Audio Track",
                 .publishFailed = "Error encountered while enabling microphone in unmuteMic().",
                 .permissionDenied = KestrovaError::ERROR_GET_AUDIO_MEDIA_PERMISSION_DENIED,
                 .trackEnded = KestrovaError::ERROR_MICROPHONE_TRACK_ENDED,
                 .invalidTrack = KestrovaError::ERROR_INVALID_CUSTOM_AUDIO_TRACK,
                 .isAudio = true,
                 .holdsToggle = false};
  return texts;
}

MicrophoneControls::MicrophoneControls(std::shared_ptr<MeetingContext> context)
    : LocalMedium(context, texts(), context->settings.micEnabled) {}

AuthorisationStatus MicrophoneControls::permission() const {
  return MediaCapturer::getAudioPermissionStatus();
}

LocalMedium::Stream MicrophoneControls::customStream() const {
  return _context->sending->customAudioMediaStream();
}

void MicrophoneControls::setCustomStream(Stream stream) {
  _context->sending->setCustomAudioMediaStream(std::move(stream));
}

LocalMedium::Track MicrophoneControls::trackOf(const CustomRTCMediaStream& stream) const {
  return stream.audioTrack();
}

void MicrophoneControls::record(const Stream& custom) {
  _context->mediaConfigStore->recordAudio(makeAudioConfig(custom));
}

Task<LocalMedium::Stream> MicrophoneControls::capture(Connection connection, SpanScope span) {
  const auto config = _context->mediaConfigStore->audio();
  const auto capturer = _context->roomClient()->capturer();
  auto track = capturer->createAudioTrack(audioConstraints(config.noiseConfig));
  if (!track) {
    traceError("Error in unmuteMic() -> Microphone access unavailable.", {}, span);
    if (connection.isCurrent())
      _context->onError(KestrovaError::ERROR_MICROPHONE_ACCESS_UNAVAILABLE.withCause(
          capturer->startFailure(MediaKind::audio)));
    co_return nullptr;
  }
  co_return std::make_shared<CustomRTCMediaStream>(
      CustomStreamFields{.audioTrack = std::move(track),
                         .audioEncoderConfig = config.audioEncoderConfig,
                         .noiseConfig = config.noiseConfig});
}

Task<std::shared_ptr<Producer>> MicrophoneControls::produce(Stream stream, Connection connection,
                                                            SpanScope span) {
  return _context->roomClient()->publishing()->produceLocalAudio(
      std::move(stream), std::move(connection), std::move(span));
}

Task<std::string> MicrophoneControls::close(std::optional<Connection> telling, SpanScope span) {
  return _context->roomClient()->publishing()->closeLocalAudio(std::move(telling), std::move(span));
}

Task<std::optional<std::string>> MicrophoneControls::cleanup() {
  return _context->roomClient()->cleanupAudio();
}

Task<void> MicrophoneControls::releaseCapture(Track track) {
  _context->roomClient()->capturer()->removeAudioTrack(track);
  co_return;
}

}  // namespace kestrova
