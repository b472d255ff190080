#include <kestrova/session/MeetingEvents.h>

#include <utility>

namespace kestrova {
namespace {

class MeetingEventsListener final : public MeetingEventListener {
public:
  explicit MeetingEventsListener(MeetingEvents events) : _events(std::move(events)) {}

  void onMeetingJoined(const std::optional<std::string>& switchMeetingId) override {
    if (_events.onMeetingJoined) _events.onMeetingJoined(switchMeetingId);
  }
  void onMeetingLeft(LeaveReason reason) override {
    if (_events.onMeetingLeft) _events.onMeetingLeft(reason);
  }
  void onParticipantJoined(const std::shared_ptr<Participant>& participant) override {
    if (_events.onParticipantJoined) _events.onParticipantJoined(participant);
  }
  void onParticipantLeft(const std::shared_ptr<Participant>& participant,
                         LeaveReason reason) override {
    if (_events.onParticipantLeft) _events.onParticipantLeft(participant, reason);
  }
  void onRecordingStarted() override {
    if (_events.onRecordingStarted) _events.onRecordingStarted();
  }
  void onRecordingStopped() override {
    if (_events.onRecordingStopped) _events.onRecordingStopped();
  }
  void onLivestreamStarted() override {
    if (_events.onLivestreamStarted) _events.onLivestreamStarted();
  }
  void onLivestreamStopped() override {
    if (_events.onLivestreamStopped) _events.onLivestreamStopped();
  }
  void onSpeakerChanged(const std::optional<std::string>& participantId) override {
    if (_events.onSpeakerChanged) _events.onSpeakerChanged(participantId);
  }
  void onMicRequested(const std::optional<std::string>& participantId, AcceptMediaRequest accept,
                      Action reject) override {
    if (_events.onMicRequested)
      _events.onMicRequested(participantId, std::move(accept), std::move(reject));
  }
  void onWebcamRequested(const std::optional<std::string>& participantId, AcceptMediaRequest accept,
                         Action reject) override {
    if (_events.onWebcamRequested)
      _events.onWebcamRequested(participantId, std::move(accept), std::move(reject));
  }
  void onSocketError(const std::string& message) override {
    if (_events.onSocketError) _events.onSocketError(message);
  }
  void onMeetingStateChanged(MeetingState meetingState) override {
    if (_events.onMeetingStateChanged) _events.onMeetingStateChanged(meetingState);
  }
  void onError(const KestrovaError& error) override {
    if (_events.onError) _events.onError(error);
  }
  void onHlsStateChanged(HLSState state, const std::optional<HLSUrl>& hlsUrl) override {
    if (_events.onHlsStateChanged) _events.onHlsStateChanged(state, hlsUrl);
  }
  void onLivestreamStateChanged(LiveStreamState state) override {
    if (_events.onLivestreamStateChanged) _events.onLivestreamStateChanged(state);
  }
  void onTranscriptionStateChanged(TranscriptionState state) override {
    if (_events.onTranscriptionStateChanged) _events.onTranscriptionStateChanged(state);
  }
  void onTranscriptionText(const TranscriptionText& text) override {
    if (_events.onTranscriptionText) _events.onTranscriptionText(text);
  }
  void onRecordingStateChanged(RecordingState state) override {
    if (_events.onRecordingStateChanged) _events.onRecordingStateChanged(state);
  }
  void onPinStateChanged(const std::string& participantId, PinType pinType) override {
    if (_events.onPinStateChanged) _events.onPinStateChanged(participantId, pinType);
  }
  void onParticipantModeChanged(const std::string& participantId, Mode mode) override {
    if (_events.onParticipantModeChanged) _events.onParticipantModeChanged(participantId, mode);
  }
  void onMicChanged(const std::string& selectedDevice) override {
    if (_events.onMicChanged) _events.onMicChanged(selectedDevice);
  }
  void onWhiteboardStarted(const std::string& url) override {
    if (_events.onWhiteboardStarted) _events.onWhiteboardStarted(url);
  }
  void onWhiteboardStopped() override {
    if (_events.onWhiteboardStopped) _events.onWhiteboardStopped();
  }
  void onExternalCallRinging(const std::string& callType) override {
    if (_events.onExternalCallRinging) _events.onExternalCallRinging(callType);
  }
  void onExternalCallAnswered(const std::string& callType) override {
    if (_events.onExternalCallAnswered) _events.onExternalCallAnswered(callType);
  }
  void onExternalCallRejected(const std::string& callType) override {
    if (_events.onExternalCallRejected) _events.onExternalCallRejected(callType);
  }
  void onExternalCallHangup(const std::string& callType) override {
    if (_events.onExternalCallHangup) _events.onExternalCallHangup(callType);
  }
  void onPausedAllStreams(const std::string& kind) override {
    if (_events.onPausedAllStreams) _events.onPausedAllStreams(kind);
  }
  void onResumedAllStreams(const std::string& kind) override {
    if (_events.onResumedAllStreams) _events.onResumedAllStreams(kind);
  }
  void onEntryResponded(const std::string& id, const std::string& decision) override {
    if (_events.onEntryResponded) _events.onEntryResponded(id, decision);
  }
  void onEntryRequested(const std::string& id, const std::string& name, Action allow,
                        Action deny) override {
    if (_events.onEntryRequested)
      _events.onEntryRequested(id, name, std::move(allow), std::move(deny));
  }
  void onMediaRelayRequestReceived(const std::string& participantId, const std::string& meetingId,
                                   const std::string& displayName, Action accept,
                                   Action reject) override {
    if (_events.onMediaRelayRequestReceived)
      _events.onMediaRelayRequestReceived(participantId, meetingId, displayName, std::move(accept),
                                          std::move(reject));
  }
  void onMediaRelayRequestResponse(const std::string& decision, const std::string& decidedBy,
                                   const std::string& meetingId) override {
    if (_events.onMediaRelayRequestResponse)
      _events.onMediaRelayRequestResponse(decision, decidedBy, meetingId);
  }
  void onMediaRelayStarted(const std::string& meetingId) override {
    if (_events.onMediaRelayStarted) _events.onMediaRelayStarted(meetingId);
  }
  void onMediaRelayStopped(const std::string& meetingId) override {
    if (_events.onMediaRelayStopped) _events.onMediaRelayStopped(meetingId);
  }
  void onMediaRelayError(const std::string& meetingId, const std::string& error) override {
    if (_events.onMediaRelayError) _events.onMediaRelayError(meetingId, error);
  }
  void onCharacterJoined(const std::shared_ptr<AICharacter>& character) override {
    if (_events.onCharacterJoined) _events.onCharacterJoined(character);
  }
  void onCharacterLeft(const std::shared_ptr<AICharacter>& character) override {
    if (_events.onCharacterLeft) _events.onCharacterLeft(character);
  }
  void onCharacterMessage(const CharacterMessage& message) override {
    if (_events.onCharacterMessage) _events.onCharacterMessage(message);
  }
  void onCharacterStateChanged(const CharacterStateChange& characterStateChange) override {
    if (_events.onCharacterStateChanged) _events.onCharacterStateChanged(characterStateChange);
  }
  void onQualityLimitation(QualityLimitationType type, QualityLimitationState state,
                           std::int64_t timestamp) override {
    if (_events.onQualityLimitation) _events.onQualityLimitation(type, state, timestamp);
  }
  void onPresenterChanged(const std::optional<std::string>& activePresenterId) override {
    if (_events.onPresenterChanged) _events.onPresenterChanged(activePresenterId);
  }
  void onCodecChanged(const CodecChangeInfo& info) override {
    if (_events.onCodecChanged) _events.onCodecChanged(info);
  }

private:
  const MeetingEvents _events;
};

}  // namespace

std::shared_ptr<MeetingEventListener> makeListener(MeetingEvents events) {
  return std::make_shared<MeetingEventsListener>(std::move(events));
}

}  // namespace kestrova
