#include <kestrova/session/MeetingCore.h>

#include <utility>

namespace kestrova {

std::shared_ptr<MeetingCore> MeetingCore::make(std::shared_ptr<MeetingContext> context) {
  std::shared_ptr<MeetingCore> core(new MeetingCore(std::move(context)));
  core->context->setRoomClientDelegate(core);
  core->context->localParticipant->setMeetingActionValidator(core);
  core->observeExternalCalls();
  return core;
}

MeetingCore::MeetingCore(std::shared_ptr<MeetingContext> meetingContext)
    : context(std::move(meetingContext)),
      registry(std::make_shared<ParticipantRegistry>(context)),
      media(std::make_shared<MediaControls>(context)),
      lifecycle(std::make_shared<MeetingLifecycle>(context, registry, media)),
      services(context) {}

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
  _callObserver =
      NotificationCenter::defaultCenter().addObserver("ExternalCallDetected", std::move(handler));
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
      return onError(KestrovaError::ERROR_ACTION_PERFORMED_BEFORE_MEETING_JOINED.withMessage(
          "You must join the meeting before calling the " + method + "() method."));
    case MeetingActionValidationFailure::meetingReconnecting:
      return onError(KestrovaError::ERROR_MEETING_RECONNECTING);
    case MeetingActionValidationFailure::meetingAlreadyLeft:
      return onError(KestrovaError::ERROR_ALREADY_IN_REQUESTED_STATE.withMessage(
          "You have already left the meeting, so " + method + "() is no longer available."));
  }
}

bool MeetingCore::mayAct(std::string_view methodName) {
  const auto failure = meetingActionState();
  if (failure) emitMeetingActionValidationFailure(*failure, methodName);
  return !failure;
}

// ---- Lifecycle ---------------------------------------------------------------------------------

void MeetingCore::meetingJoined(const std::optional<std::string>& switchMeetingId) {
  if (switchMeetingId) context->listeners->onMeetingJoined(switchMeetingId);
}

Task<void> MeetingCore::disconnected(std::optional<LeaveReason> leaveReason) {
  return lifecycle->disconnected(leaveReason);
}

Task<void> MeetingCore::closeMeetingRequested(LeaveReason leaveReason) {
  return lifecycle->closeMeetingRequested(leaveReason);
}

void MeetingCore::socketConnectionError(const std::string& message) {
  context->emit([message](auto& listener) { listener.onSocketError(message); });
}

void MeetingCore::entryRequested(const Dictionary& data) {
  const auto id = text(data, "id");
  if (!id) return;
  const auto respond = [weak = weak_from_this(), id = *id](const char* decision) {
    return [weak, id, decision] {
      if (const auto self = weak.lock()) self->respondEntry(id, decision);
    };
  };
  context->emit([id = *id, name = text(data, "name", ""), allow = respond("allowed"),
                 deny = respond("denied")](auto& listener) {
    listener.onEntryRequested(id, name, allow, deny);
  });
}

void MeetingCore::respondEntry(const std::string& peerId, const std::string& decision) {
  if (!mayAct("respondEntry")) return;
  auto task = [](std::shared_ptr<RoomClient> client, std::string id,
                 std::string answer) -> Task<void> {
    co_await client->respondEntry(std::move(id), std::move(answer));
  };
  spawn(task(context->roomClient(), peerId, decision));
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
  registry->addStream(std::make_shared<MediaStream>(consumer, isShare), participantId);
}

void MeetingCore::handleStreamStateChange(StreamState state, const std::string& peerId,
                                          const std::string& trackId) {
  registry->handleStreamStateChange(state, peerId, trackId);
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
  services.onHlsStateChanged(state, hlsUrls);
}
void MeetingCore::onRecordingStateChanged(RecordingState state) {
  services.onRecordingStateChanged(state);
}
void MeetingCore::onLivestreamStateChanged(LiveStreamState state) {
  services.onLivestreamStateChanged(state);
}
void MeetingCore::onTranscriptionStateChanged(TranscriptionState state) {
  services.onTranscriptionStateChanged(state);
}
void MeetingCore::transcriptionText(const TranscriptionText& text) {
  context->emit([text](auto& listener) { listener.onTranscriptionText(text); });
}
void MeetingCore::whiteboardStarted(const std::string& url) {
  context->emit([url](auto& listener) { listener.onWhiteboardStarted(url); });
}
void MeetingCore::whiteboardStopped() {
  context->emit([](auto& listener) { listener.onWhiteboardStopped(); });
}

// ---- Codecs ------------------------------------------------------------------------------------

void MeetingCore::recordVideoCodec(VideoCodec codec) {
  context->mediaConfigStore->recordVideoCodec(codec);
}
void MeetingCore::recordMultiStreamDowngrade() {
  context->mediaConfigStore->recordMultiStreamDowngrade();
}

}  // namespace kestrova
