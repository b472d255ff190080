#pragma once

#include <kestrova/session/MeetingEventListener.h>
#include <kestrova/session/MulticastDelegate.h>

namespace kestrova {

/// Every listener of one object behind a single listener. Its operations call each member in turn,
/// on the calling thread, which must be the main queue's.
class MeetingMulticastDelegate final : public MeetingEventListener {
public:
  void add(const std::shared_ptr<MeetingEventListener>& listener) {
    multicastDelegate.add(listener);
  }
  void remove(const std::shared_ptr<MeetingEventListener>& listener) {
    multicastDelegate.remove(listener);
  }
  void removeAll() { multicastDelegate.removeAll(); }

  void onMeetingJoined() override;
  void onMeetingJoined(const std::optional<std::string>& switchMeetingId) override;
  void onMeetingLeft() override;
  void onMeetingLeft(LeaveReason reason) override;
  void onParticipantJoined(const std::shared_ptr<Participant>& participant) override;
  void onParticipantLeft(const std::shared_ptr<Participant>& participant) override;
  void onParticipantLeft(const std::shared_ptr<Participant>& participant,
                         LeaveReason reason) override;
  void onRecordingStarted() override;
  void onRecordingStopped() override;
  void onLivestreamStarted() override;
  void onLivestreamStopped() override;
  void onSpeakerChanged(const std::optional<std::string>& participantId) override;
  void onMicRequested(const std::optional<std::string>& participantId, Action accept,
                      Action reject) override;
  void onWebcamRequested(const std::optional<std::string>& participantId, Action accept,
                         Action reject) override;
  void onSocketError(const std::string& message) override;
  void onMeetingStateChanged(MeetingState meetingState) override;
  void onError(const KestrovaError& error) override;
  void onHlsStateChanged(HLSState state, const std::optional<HLSUrl>& hlsUrl) override;
  void onLivestreamStateChanged(LiveStreamState state) override;
  void onTranscriptionStateChanged(TranscriptionState state) override;
  void onTranscriptionText(const TranscriptionText& text) override;
  void onRecordingStateChanged(RecordingState state) override;
  void onPinStateChanged(const std::string& participantId, PinType pinType) override;
  void onParticipantModeChanged(const std::string& participantId, Mode mode) override;
  void onMicChanged(const std::string& selectedDevice) override;
  void onWhiteboardStarted(const std::string& url) override;
  void onWhiteboardStopped() override;
  void onExternalCallRinging(const std::string& callType) override;
  void onExternalCallAnswered(const std::string& callType) override;
  void onExternalCallRejected(const std::string& callType) override;
  void onExternalCallHangup(const std::string& callType) override;
  void onPausedAllStreams(const std::string& kind) override;
  void onResumedAllStreams(const std::string& kind) override;
  void onEntryResponded(const std::string& id, const std::string& decision) override;
  void onEntryRequested(const std::string& id, const std::string& name, Action allow,
                        Action deny) override;
  void onMediaRelayRequestReceived(const std::string& participantId, const std::string& meetingId,
                                   const std::string& displayName, Action accept,
                                   Action reject) override;
  void onMediaRelayRequestResponse(const std::string& decision, const std::string& decidedBy,
                                   const std::string& meetingId) override;
  void onMediaRelayStarted(const std::string& meetingId) override;
  void onMediaRelayStopped(const std::string& meetingId) override;
  void onMediaRelayError(const std::string& meetingId, const std::string& error) override;
  void onCharacterJoined(const std::shared_ptr<AICharacter>& character) override;
  void onCharacterLeft(const std::shared_ptr<AICharacter>& character) override;
  void onCharacterMessage(const CharacterMessage& message) override;
  void onCharacterStateChanged(const CharacterStateChange& characterStateChange) override;
  void onQualityLimitation(QualityLimitationType type, QualityLimitationState state,
                           std::int64_t timestamp) override;
  void onPresenterChanged(const std::optional<std::string>& activePresenterId) override;
  void onCodecChanged(const CodecChangeInfo& info) override;

private:
  MulticastDelegate<MeetingEventListener> multicastDelegate;
};

}  // namespace kestrova
