#include <kestrova/model/RoomClientError.h>
#include <kestrova/session/MicrophoneControls.h>
#include <kestrova/tracing/Trace.h>

#include <utility>

namespace kestrova {

MicrophoneControls::MicrophoneControls(std::shared_ptr<MeetingContext> context)
    : _context(std::move(context)), _state(_context->settings.micEnabled) {}

// ---- Toggles -----------------------------------------------------------------------------------

void MicrophoneControls::unmuteMic(std::shared_ptr<CustomRTCMediaStream> customAudioStream) {
  const auto refusal =
      _state.claimToggle(true, {"Error in unmuteMic() -> Microphone is already enabled.",
                                "Error in unmuteMic() -> Microphone enabling is in progress."});
  if (refusal) return traceError(*refusal, {{"error", *refusal}});
  auto task = [](std::shared_ptr<MicrophoneControls> self,
                 std::shared_ptr<CustomRTCMediaStream> custom) -> Task<void> {
    const ToggleClaim claim(self->_state);
    self->_context->setCustomAudioMediaStream(custom);
    const bool published = co_await self->enable(std::move(custom), std::nullopt);
    // What a drop of the connection interrupts is still wanted after it.
    if (published || !self->_context->roomClient()->isSocketConnected()) self->_state.setOn(true);
  };
  spawn(task(shared_from_this(), liveAudio(std::move(customAudioStream))));
}

void MicrophoneControls::muteMic() {
  const auto refusal =
      _state.claimToggle(false, {"Error in muteMic() -> Microphone is already disabled.",
                                 "Error in muteMic() -> Microphone disabling is in progress."});
  if (refusal) return traceError(*refusal, {{"error", *refusal}});
  spawn(shared_from_this(), disable());
}

Task<void> MicrophoneControls::disable() {
  const ToggleClaim claim(_state);
  ScopedSpan span("Disabling Microphone");
  co_await stopAudio(span.scope());
  span.event("Disposing Audio Track");
  disposeOwnCapture(_context->customAudioMediaStream());
  _context->setCustomAudioMediaStream(nullptr);
  _state.setOn(false);
}

// ---- After the join ----------------------------------------------------------------------------

Task<void> MicrophoneControls::startWished(Mode mode, std::optional<SpanScope> parentSpan) {
  const auto self = shared_from_this();
  // A toggle in the middle of this would find nothing to stop, and leave the microphone on.
  const bool wasToggling = _state.exchangeToggling(true);
  if (sendsMedia(mode) && _state.on()) {
    const bool published =
        co_await enable(liveAudio(_context->customAudioMediaStream()), parentSpan);
    // What a drop of the connection interrupted is still wanted after it.
    if (!published && _context->roomClient()->isSocketConnected()) _state.setOn(false);
  } else if (_context->settings.micEnabled) {
    ScopedSpan span("Disabling Microphone", {}, parentSpan);
    co_await stopAudio(span.scope());
  }
  if (!wasToggling) _state.release();
}

Task<bool> MicrophoneControls::enable(std::shared_ptr<CustomRTCMediaStream> custom,
                                      std::optional<SpanScope> parentSpan) {
  endOnFailure(custom, weak_from_this());
  const auto described = custom ? custom->toJsonString(true) : "Custom Track not provided";
  const bool allowed = MediaCapturer::getAudioPermissionStatus() == AuthorisationStatus::authorized;
  ScopedSpan span(custom ? "Enabling Microphone with Custom Audio Track"
                         : "Enabling Microphone without Custom Audio Track",
                  {{"customAudioTrack", described}, {"micPermissionStatus", allowed}}, parentSpan);
  co_return co_await startAudio(std::move(custom), span.scope());
}

// ---- Capture and publication -------------------------------------------------------------------

Task<bool> MicrophoneControls::startAudio(std::shared_ptr<CustomRTCMediaStream> audioMediaStream,
                                          SpanScope parentSpan) {
  const auto self = shared_from_this();
  if (!permitted(*_context, MediaCapturer::getAudioPermissionStatus(),
                 KestrovaError::ERROR_GET_AUDIO_MEDIA_PERMISSION_DENIED, parentSpan))
    co_return false;
  if (audioMediaStream)
    _context->mediaConfigStore->recordAudio(makeAudioConfig(audioMediaStream));
  else
    audioMediaStream = buildAudioStream(_context->mediaConfigStore->audio());
  if (!audioMediaStream) {
    traceError("Error in unmuteMic() -> Microphone access unavailable.", {}, parentSpan);
    _context->onError(KestrovaError::ERROR_MICROPHONE_ACCESS_UNAVAILABLE);
    co_return false;
  }
  co_return co_await produceAudio(std::move(audioMediaStream), std::move(parentSpan));
}

std::shared_ptr<CustomRTCMediaStream> MicrophoneControls::buildAudioStream(
    const AudioConfigSnapshot& config) {
  auto track =
      _context->roomClient()->capturer()->createAudioTrack(audioConstraints(config.noiseConfig));
  if (!track) return nullptr;
  return std::make_shared<CustomRTCMediaStream>(
      CustomStreamFields{.audioTrack = std::move(track),
                         .audioEncoderConfig = config.audioEncoderConfig,
                         .noiseConfig = config.noiseConfig});
}

Task<bool> MicrophoneControls::produceAudio(std::shared_ptr<CustomRTCMediaStream> stream,
                                            SpanScope span) {
  const auto client = _context->roomClient();
  std::shared_ptr<Producer> producer;
  try {
    auto producing = client->publishing()->produceLocalAudio(std::move(stream), span);
    producer = co_await std::move(producing);
  } catch (const RoomClientFailure&) {
    // Traced and reported where it arose.
  } catch (const std::exception& error) {
    traceError(error.what(), {}, span);
  }
  if (!producer) {
    traceError("Error encountered while enabling microphone in unmuteMic().", {}, span);
    // What nobody gets to hear is not captured either.
    client->capturer()->removeAudioTrack();
    co_return false;
  }
  _context->localParticipant->addStream(std::make_shared<MediaStream>(producer));
  co_return true;
}

Task<void> MicrophoneControls::stopAudio(SpanScope parentSpan) {
  const auto self = shared_from_this();
  try {
    auto closing = _context->roomClient()->publishing()->closeLocalAudio(true, parentSpan);
    const auto streamId = co_await std::move(closing);
    _context->localParticipant->removeStream(streamId);
  } catch (const RoomClientFailure&) {
    // There was none to stop.
  }
}

void MicrophoneControls::captureFailed(std::string error) {
  // A toggle under way meets the failure by itself.
  if (!_state.claimWhileOn()) return;
  spawn(shared_from_this(), endAfterFailure(std::move(error)));
}

Task<void> MicrophoneControls::endAfterFailure(std::string error) {
  const ToggleClaim claim(_state);
  ScopedSpan span("Disabling Microphone", {{"error", error}});
  co_await stopAudio(span.scope());
  _state.setOn(false);
  _context->onError(KestrovaError::ERROR_MICROPHONE_TRACK_ENDED);
}

}  // namespace kestrova
