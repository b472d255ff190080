#include <kestrova/session/MeetingCore.h>

#include <utility>

namespace kestrova {

std::shared_ptr<MeetingCore> MeetingCore::make(std::shared_ptr<MeetingContext> context) {
  std::shared_ptr<MeetingCore> core(new MeetingCore(std::move(context)));
  core->context->setRoomClientDelegate(core);
  core->context->localParticipant->setMeetingActionValidator(core);
  core->requests->setMeetingActionValidator(core);
  core->controls->setMeetingActionValidator(core);
  core->characters->setMeetingActionValidator(core);
  core->realtime->setMeeting(core);
  core->observeExternalCalls();
  return core;
}

MeetingCore::MeetingCore(std::shared_ptr<MeetingContext> meetingContext)
    : context(std::move(meetingContext)),
      registry(std::make_shared<ParticipantRegistry>(context)),
      characters(std::make_shared<CharacterRegistry>(context)),
      media(std::make_shared<MediaControls>(context, registry)),
      audio(std::make_shared<AudioControls>(context)),
      realtime(std::make_shared<MeetingRealtime>(context)),
      services(std::make_shared<ServiceStatus>(context)),
      lifecycle(std::make_shared<MeetingLifecycle>(context, registry, characters, media, realtime,
                                                   services)),
      modeChange(std::make_shared<ModeChange>(context, media)),
      controls(std::make_shared<ServiceControls>(context)),
      requests(std::make_shared<RequestsFromOthers>(context, media, controls)) {}

void MeetingCore::observeExternalCalls() {
  auto handler = [weak = std::weak_ptr(context)](const Dictionary& userInfo) {
    const auto event = text(userInfo, "event");
    const auto callType = text(userInfo, "callType");
    const auto self = weak.lock();
    if (!event || !callType || !self) return;
    self->emit([event = *event, callType = *callType](auto& listener) {
      if (event == "onExternalCallRinging") listener.onExternalCallRinging(callType);
      if (event == "onExternalCallAnswered") listener.onExternalCallAnswered(callType);
      if (event == "onExternalCallRejected") listener.onExternalCallRejected(callType);
      if (event == "onExternalCallHangup") listener.onExternalCallHangup(callType);
    });
  };
  _callObserver = NotificationCenter::defaultCenter().addObserver(externalCallDetectedNotification,
                                                                  std::move(handler));
}

// ---- The guard ---------------------------------------------------------------------------------

std::optional<MeetingActionValidationFailure> MeetingCore::meetingActionState() const {
  return lifecycle->meetingActionState();
}

void MeetingCore::emitMeetingActionValidationFailure(MeetingActionValidationFailure failure,
                                                     std::string_view methodName) {
  const std::string method(methodName);
  switch (failure) {
    case MeetingActionValidationFailure::meetingNotJoined:
      return context->onError(
          KestrovaError::ERROR_ACTION_PERFORMED_BEFORE_MEETING_JOINED.withMessage(
              "You must join the meeting before calling the " + method + "() method."));
    case MeetingActionValidationFailure::meetingReconnecting:
      return context->onError(KestrovaError::ERROR_MEETING_RECONNECTING);
    case MeetingActionValidationFailure::meetingAlreadyLeft:
      return context->onError(KestrovaError::ERROR_ALREADY_IN_REQUESTED_STATE.withMessage(
          "You have already left the meeting, so " + method + "() is no longer available."));
  }
}

// ---- Lifecycle ---------------------------------------------------------------------------------

void MeetingCore::meetingJoined(const std::optional<std::string>& switchMeetingId) {
  if (switchMeetingId) lifecycle->meetingMoved(*switchMeetingId);
}

Task<void> MeetingCore::disconnected(std::optional<LeaveReason> leaveReason) {
  return lifecycle->disconnected(leaveReason);
}

Task<void> MeetingCore::closeMeetingRequested(LeaveReason leaveReason) {
  return lifecycle->closeMeetingRequested(leaveReason);
}

void MeetingCore::socketConnectionError(const std::string& message) {
  lifecycle->noteSocketError(message);
  context->emit([message](auto& listener) { listener.onSocketError(message); });
}

void MeetingCore::handleOnRemoveCurrentMeetingParticipant() {
  registry->removeAll(LeaveReason::switchRoom);
  characters->removeAll();
  services->stopAll();
}

// ---- Participants and streams ------------------------------------------------------------------

void MeetingCore::addParticipant(const Peer& peer) {
  registry->addParticipant(peer, weak_from_this());
}

void MeetingCore::removeParticipant(const std::string& id, LeaveReason leaveReason) {
  registry->removeParticipant(id, leaveReason);
}

void MeetingCore::addStream(const std::shared_ptr<Consumer>& consumer, bool isShare,
                            const std::string& participantId) {
  const auto stream = std::make_shared<MediaStream>(consumer, isShare);
  if (!registry->addStream(stream, participantId)) characters->addStream(stream, participantId);
}

void MeetingCore::removeStream(const std::string& id) {
  if (!registry->removeStream(id)) characters->removeStream(id);
}

void MeetingCore::handleStreamStateChange(StreamState state, const std::string& peerId,
                                          const std::string& trackId) {
  registry->handleStreamStateChange(state, peerId, trackId);
  characters->handleStreamStateChange(state, peerId, trackId);
}

void MeetingCore::streamsMeasured(const std::vector<StreamMeasurement>& measured) {
  for (const auto& each : measured)
    if (!registry->takeMetrics(each)) characters->takeMetrics(each);
}

void MeetingCore::qualityLimitationInternal(QualityLimitationType type,
                                            QualityLimitationState state, std::int64_t timestamp) {
  const auto traceIt = [=] {
    trace("Emitting QUALITY_LIMITATION Event",
          {{"type", text(type)}, {"state", text(state)}, {"timestamp", timestamp}});
  };
  context->emit(traceIt,
                [=](auto& listener) { listener.onQualityLimitation(type, state, timestamp); });
}

void MeetingCore::participantMediaStatusChanged(const std::string& peerId, const std::string& kind,
                                                bool newState) {
  registry->participantMediaStatusChanged(peerId, kind, newState);
}

void MeetingCore::participantModeChanged(const std::string& participantId, Mode mode) {
  registry->participantModeChanged(participantId, mode);
}

void MeetingCore::pinStateChanged(const std::string& participantId, ParticipantPinState pinState,
                                  const std::string& /*pinnedBy*/) {
  registry->pinStateChanged(participantId, pinState);
}

void MeetingCore::speakerChanged(const std::optional<std::string>& participantId) {
  registry->speakerChanged(participantId);
}

void MeetingCore::handleParticipantPausedBySubManager(const Dictionary& data) {
  registry->handleParticipantPausedBySubManager(data);
}

void MeetingCore::handleParticipantResumeBySubManager(const Dictionary& data) {
  registry->handleParticipantResumeBySubManager(data);
}

void MeetingCore::pauseAllStreams(const std::string& kind) {
  context->emit([kind](auto& listener) { listener.onPausedAllStreams(kind); });
}

void MeetingCore::resumeAllStreams(const std::string& kind) {
  context->emit([kind](auto& listener) { listener.onResumedAllStreams(kind); });
}

// ---- Requests from others ----------------------------------------------------------------------

void MeetingCore::enableMicRequested(const std::optional<std::string>& participantId) {
  requests->enableMicRequested(participantId);
}
void MeetingCore::disableMicRequested(const std::optional<std::string>& /*participantId*/) {
  requests->disableMicRequested();
}
void MeetingCore::enableWebcamRequested(const std::optional<std::string>& participantId,
                                        std::optional<CameraPosition> cameraPosition) {
  requests->enableWebcamRequested(participantId, cameraPosition);
}
void MeetingCore::disableWebcamRequested(const std::optional<std::string>& /*participantId*/) {
  requests->disableWebcamRequested();
}

// ---- Services ----------------------------------------------------------------------------------

void MeetingCore::recordingStarted() {
  context->emit([](auto& listener) { listener.onRecordingStarted(); });
}
void MeetingCore::recordingStopped() {
  context->emit([](auto& listener) { listener.onRecordingStopped(); });
}
void MeetingCore::livestreamStarted() {
  context->emit([](auto& listener) { listener.onLivestreamStarted(); });
}
void MeetingCore::livestreamStopped() {
  context->emit([](auto& listener) { listener.onLivestreamStopped(); });
}
void MeetingCore::onHlsStateChanged(HLSState state, const HLSUrl& hlsUrls) {
  services->onHlsStateChanged(state, hlsUrls);
}
void MeetingCore::onRecordingStateChanged(RecordingState state) {
  services->onRecordingStateChanged(state);
}
void MeetingCore::onLivestreamStateChanged(LiveStreamState state) {
  services->onLivestreamStateChanged(state);
}
void MeetingCore::onTranscriptionStateChanged(TranscriptionState state) {
  services->onTranscriptionStateChanged(state);
}
void MeetingCore::transcriptionText(const TranscriptionText& text) {
  context->emit([text](auto& listener) { listener.onTranscriptionText(text); });
}
void MeetingCore::whiteboardStarted(const std::string& url) {
  services->whiteboardStarted(url);
}
void MeetingCore::whiteboardStopped() {
  services->whiteboardStopped();
}

// ---- Media relay -------------------------------------------------------------------------------

void MeetingCore::onMediaRelayRequestReceived(const std::string& participantId,
                                              const std::string& meetingId,
                                              const std::string& displayName) {
  requests->mediaRelayRequestReceived(participantId, meetingId, displayName);
}
void MeetingCore::onMediaRelayRequestResponse(const std::string& decision,
                                              const std::string& decidedBy,
                                              const std::string& meetingId) {
  context->emit([decision, decidedBy, meetingId](auto& listener) {
    listener.onMediaRelayRequestResponse(decision, decidedBy, meetingId);
  });
}
void MeetingCore::onMediaRelayStarted(const std::string& meetingId) {
  context->emit([meetingId](auto& listener) { listener.onMediaRelayStarted(meetingId); });
}
void MeetingCore::onMediaRelayStopped(const std::string& meetingId) {
  context->emit([meetingId](auto& listener) { listener.onMediaRelayStopped(meetingId); });
}
void MeetingCore::onMediaRelayError(const std::string& meetingId, const std::string& error) {
  context->emit(
      [meetingId, error](auto& listener) { listener.onMediaRelayError(meetingId, error); });
}

// ---- Agents ------------------------------------------------------------------------------------

void MeetingCore::agentStateChanged(const std::string& peerId, AgentState state) {
  registry->agentStateChanged(peerId, state);
}
void MeetingCore::agentTranscriptReceived(const std::string& peerId, const std::string& text,
                                          std::int64_t timestamp) {
  registry->agentTranscriptReceived(peerId, {text, timestamp});
}
void MeetingCore::agentMetricsReceived(const std::string& peerId, const Dictionary& metrics) {
  registry->agentMetricsReceived(peerId, metrics);
}

// ---- Codecs ------------------------------------------------------------------------------------

void MeetingCore::performVP8CodecFallback(VideoCodec unsupportedCodec, const std::string& kind,
                                          const std::optional<std::string>& causedByPeerId) {
  media->camera->performVP8CodecFallback(unsupportedCodec, kind, causedByPeerId);
}
void MeetingCore::switchRoomUnsupportedCodecs(const std::vector<std::string>& codecs) {
  media->camera->switchRoomUnsupportedCodecs(codecs);
}

void MeetingCore::recordVideoCodec(VideoCodec codec) {
  context->mediaConfigStore->recordVideoCodec(codec);
}
void MeetingCore::recordMultiStreamDowngrade() {
  context->mediaConfigStore->recordMultiStreamDowngrade();
}

}  // namespace kestrova
