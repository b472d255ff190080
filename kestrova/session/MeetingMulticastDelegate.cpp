#include <kestrova/session/MeetingMulticastDelegate.h>

namespace kestrova {

void MeetingMulticastDelegate::onMeetingJoined() {
  multicastDelegate.invoke([&](auto& listener) { listener.onMeetingJoined(); });
}

void MeetingMulticastDelegate::onMeetingJoined(const std::optional<std::string>& switchMeetingId) {
  multicastDelegate.invoke([&](auto& listener) { listener.onMeetingJoined(switchMeetingId); });
}

void MeetingMulticastDelegate::onMeetingLeft() {
  multicastDelegate.invoke([&](auto& listener) { listener.onMeetingLeft(); });
}

void MeetingMulticastDelegate::onMeetingLeft(LeaveReason reason) {
  multicastDelegate.invoke([&](auto& listener) { listener.onMeetingLeft(reason); });
}

void MeetingMulticastDelegate::onParticipantJoined(
    const std::shared_ptr<Participant>& participant) {
  multicastDelegate.invoke([&](auto& listener) { listener.onParticipantJoined(participant); });
}

void MeetingMulticastDelegate::onParticipantLeft(const std::shared_ptr<Participant>& participant) {
  multicastDelegate.invoke([&](auto& listener) { listener.onParticipantLeft(participant); });
}

void MeetingMulticastDelegate::onParticipantLeft(const std::shared_ptr<Participant>& participant,
                                                 LeaveReason reason) {
  multicastDelegate.invoke(
      [&](auto& listener) { listener.onParticipantLeft(participant, reason); });
}

void MeetingMulticastDelegate::onRecordingStarted() {
  multicastDelegate.invoke([&](auto& listener) { listener.onRecordingStarted(); });
}

void MeetingMulticastDelegate::onRecordingStopped() {
  multicastDelegate.invoke([&](auto& listener) { listener.onRecordingStopped(); });
}

void MeetingMulticastDelegate::onLivestreamStarted() {
  multicastDelegate.invoke([&](auto& listener) { listener.onLivestreamStarted(); });
}

void MeetingMulticastDelegate::onLivestreamStopped() {
  multicastDelegate.invoke([&](auto& listener) { listener.onLivestreamStopped(); });
}

void MeetingMulticastDelegate::onSpeakerChanged(const std::optional<std::string>& participantId) {
  multicastDelegate.invoke([&](auto& listener) { listener.onSpeakerChanged(participantId); });
}

void MeetingMulticastDelegate::onMicRequested(const std::optional<std::string>& participantId,
                                              Action accept, Action reject) {
  multicastDelegate.invoke(
      [&](auto& listener) { listener.onMicRequested(participantId, accept, reject); });
}

void MeetingMulticastDelegate::onWebcamRequested(const std::optional<std::string>& participantId,
                                                 Action accept, Action reject) {
  multicastDelegate.invoke(
      [&](auto& listener) { listener.onWebcamRequested(participantId, accept, reject); });
}

void MeetingMulticastDelegate::onSocketError(const std::string& message) {
  multicastDelegate.invoke([&](auto& listener) { listener.onSocketError(message); });
}

void MeetingMulticastDelegate::onMeetingStateChanged(MeetingState meetingState) {
  multicastDelegate.invoke([&](auto& listener) { listener.onMeetingStateChanged(meetingState); });
}

void MeetingMulticastDelegate::onError(const KestrovaError& error) {
  multicastDelegate.invoke([&](auto& listener) { listener.onError(error); });
}

void MeetingMulticastDelegate::onHlsStateChanged(HLSState state,
                                                 const std::optional<HLSUrl>& hlsUrl) {
  multicastDelegate.invoke([&](auto& listener) { listener.onHlsStateChanged(state, hlsUrl); });
}

void MeetingMulticastDelegate::onLivestreamStateChanged(LiveStreamState state) {
  multicastDelegate.invoke([&](auto& listener) { listener.onLivestreamStateChanged(state); });
}

void MeetingMulticastDelegate::onTranscriptionStateChanged(TranscriptionState state) {
  multicastDelegate.invoke([&](auto& listener) { listener.onTranscriptionStateChanged(state); });
}

void MeetingMulticastDelegate::onTranscriptionText(const TranscriptionText& text) {
  multicastDelegate.invoke([&](auto& listener) { listener.onTranscriptionText(text); });
}

void MeetingMulticastDelegate::onRecordingStateChanged(RecordingState state) {
  multicastDelegate.invoke([&](auto& listener) { listener.onRecordingStateChanged(state); });
}

void MeetingMulticastDelegate::onPinStateChanged(const std::string& participantId,
                                                 PinType pinType) {
  multicastDelegate.invoke(
      [&](auto& listener) { listener.onPinStateChanged(participantId, pinType); });
}

void MeetingMulticastDelegate::onParticipantModeChanged(const std::string& participantId,
                                                        Mode mode) {
  multicastDelegate.invoke(
      [&](auto& listener) { listener.onParticipantModeChanged(participantId, mode); });
}

void MeetingMulticastDelegate::onMicChanged(const std::string& selectedDevice) {
  multicastDelegate.invoke([&](auto& listener) { listener.onMicChanged(selectedDevice); });
}

void MeetingMulticastDelegate::onWhiteboardStarted(const std::string& url) {
  multicastDelegate.invoke([&](auto& listener) { listener.onWhiteboardStarted(url); });
}

void MeetingMulticastDelegate::onWhiteboardStopped() {
  multicastDelegate.invoke([&](auto& listener) { listener.onWhiteboardStopped(); });
}

void MeetingMulticastDelegate::onExternalCallRinging(const std::string& callType) {
  multicastDelegate.invoke([&](auto& listener) { listener.onExternalCallRinging(callType); });
}

void MeetingMulticastDelegate::onExternalCallAnswered(const std::string& callType) {
  multicastDelegate.invoke([&](auto& listener) { listener.onExternalCallAnswered(callType); });
}

void MeetingMulticastDelegate::onExternalCallRejected(const std::string& callType) {
  multicastDelegate.invoke([&](auto& listener) { listener.onExternalCallRejected(callType); });
}

void MeetingMulticastDelegate::onExternalCallHangup(const std::string& callType) {
  multicastDelegate.invoke([&](auto& listener) { listener.onExternalCallHangup(callType); });
}

void MeetingMulticastDelegate::onPausedAllStreams(const std::string& kind) {
  multicastDelegate.invoke([&](auto& listener) { listener.onPausedAllStreams(kind); });
}

void MeetingMulticastDelegate::onResumedAllStreams(const std::string& kind) {
  multicastDelegate.invoke([&](auto& listener) { listener.onResumedAllStreams(kind); });
}

void MeetingMulticastDelegate::onEntryResponded(const std::string& id,
                                                const std::string& decision) {
  multicastDelegate.invoke([&](auto& listener) { listener.onEntryResponded(id, decision); });
}

void MeetingMulticastDelegate::onEntryRequested(const std::string& id, const std::string& name,
                                                Action allow, Action deny) {
  multicastDelegate.invoke(
      [&](auto& listener) { listener.onEntryRequested(id, name, allow, deny); });
}

void MeetingMulticastDelegate::onMediaRelayRequestReceived(const std::string& participantId,
                                                           const std::string& meetingId,
                                                           const std::string& displayName,
                                                           Action accept, Action reject) {
  multicastDelegate.invoke([&](auto& listener) {
    listener.onMediaRelayRequestReceived(participantId, meetingId, displayName, accept, reject);
  });
}

void MeetingMulticastDelegate::onMediaRelayRequestResponse(const std::string& decision,
                                                           const std::string& decidedBy,
                                                           const std::string& meetingId) {
  multicastDelegate.invoke([&](auto& listener) {
    listener.onMediaRelayRequestResponse(decision, decidedBy, meetingId);
  });
}

void MeetingMulticastDelegate::onMediaRelayStarted(const std::string& meetingId) {
  multicastDelegate.invoke([&](auto& listener) { listener.onMediaRelayStarted(meetingId); });
}

void MeetingMulticastDelegate::onMediaRelayStopped(const std::string& meetingId) {
  multicastDelegate.invoke([&](auto& listener) { listener.onMediaRelayStopped(meetingId); });
}

void MeetingMulticastDelegate::onMediaRelayError(const std::string& meetingId,
                                                 const std::string& error) {
  multicastDelegate.invoke([&](auto& listener) { listener.onMediaRelayError(meetingId, error); });
}

void MeetingMulticastDelegate::onCharacterJoined(const std::shared_ptr<AICharacter>& character) {
  multicastDelegate.invoke([&](auto& listener) { listener.onCharacterJoined(character); });
}

void MeetingMulticastDelegate::onCharacterLeft(const std::shared_ptr<AICharacter>& character) {
  multicastDelegate.invoke([&](auto& listener) { listener.onCharacterLeft(character); });
}

void MeetingMulticastDelegate::onCharacterMessage(const CharacterMessage& message) {
  multicastDelegate.invoke([&](auto& listener) { listener.onCharacterMessage(message); });
}

void MeetingMulticastDelegate::onCharacterStateChanged(
    const CharacterStateChange& characterStateChange) {
  multicastDelegate.invoke(
      [&](auto& listener) { listener.onCharacterStateChanged(characterStateChange); });
}

void MeetingMulticastDelegate::onQualityLimitation(QualityLimitationType type,
                                                   QualityLimitationState state,
                                                   std::int64_t timestamp) {
  multicastDelegate.invoke(
      [&](auto& listener) { listener.onQualityLimitation(type, state, timestamp); });
}

void MeetingMulticastDelegate::onPresenterChanged(
    const std::optional<std::string>& activePresenterId) {
  multicastDelegate.invoke([&](auto& listener) { listener.onPresenterChanged(activePresenterId); });
}

void MeetingMulticastDelegate::onCodecChanged(const CodecChangeInfo& info) {
  multicastDelegate.invoke([&](auto& listener) { listener.onCodecChanged(info); });
}

}  // namespace kestrova
