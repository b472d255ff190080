#pragma once

#include <kestrova/session/CharacterEventListener.h>
#include <kestrova/session/MeetingEventListener.h>
#include <kestrova/session/ParticipantEventListener.h>

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova::test {

/// Lines of what was heard, and what a test does when it hears one.
class Heard {
public:
  /// Runs `action`, from inside the callback, whenever a line begins with `prefix`.
  void when(std::string prefix, std::function<void()> action) {
    _reactions.emplace_back(std::move(prefix), std::move(action));
  }
  const std::vector<std::string>& lines() const { return _lines; }
  /// The lines, which are forgotten.
  std::vector<std::string> take() { return std::exchange(_lines, {}); }
  /// Lines that begin with `prefix`.
  long count(std::string_view prefix) const;
  bool has(std::string_view prefix) const { return count(prefix) > 0; }

protected:
  void hear(std::string line);

private:
  std::vector<std::string> _lines;
  std::vector<std::pair<std::string, std::function<void()>>> _reactions;
};

class RecordingListener final : public MeetingEventListener, public Heard {
public:
  std::map<std::string, Action> allow;  ///< by the id of who wants to enter
  std::map<std::string, Action> deny;
  std::vector<Action> relayAnswers;  ///< to the newest request: to accept it, to reject it
  std::vector<std::shared_ptr<AICharacter>> characters;  ///< as they joined
  std::vector<AcceptMediaRequest> accept;  ///< of the requests for microphone or camera, in order
  std::vector<std::shared_ptr<Participant>> joined;
  std::vector<KestrovaError> errors;

  void onMeetingJoined() override { hear("onMeetingJoined (older form)"); }
  void onMeetingJoined(const std::optional<std::string>& switchMeetingId) override;
  void onMeetingLeft() override { hear("onMeetingLeft"); }
  void onMeetingLeft(LeaveReason reason) override;
  void onQualityLimitation(QualityLimitationType type, QualityLimitationState state,
                           std::int64_t timestamp) override;
  void onParticipantJoined(const std::shared_ptr<Participant>& participant) override;
  void onParticipantLeft(const std::shared_ptr<Participant>& participant) override;
  void onParticipantLeft(const std::shared_ptr<Participant>& participant,
                         LeaveReason reason) override;
  void onRecordingStarted() override { hear("onRecordingStarted"); }
  void onRecordingStopped() override { hear("onRecordingStopped"); }
  void onLivestreamStarted() override { hear("onLivestreamStarted"); }
  void onLivestreamStopped() override { hear("onLivestreamStopped"); }
  void onSpeakerChanged(const std::optional<std::string>& participantId) override;
  void onMicRequested(const std::optional<std::string>& participantId, AcceptMediaRequest acceptIt,
                      Action reject) override;
  void onWebcamRequested(const std::optional<std::string>& participantId,
                         AcceptMediaRequest acceptIt, Action reject) override;
  void onPausedAllStreams(const std::string& kind) override { hear("onPausedAllStreams " + kind); }
  void onResumedAllStreams(const std::string& kind) override {
    hear("onResumedAllStreams " + kind);
  }
  void onSocketError(const std::string& message) override { hear("onSocketError " + message); }
  void onMeetingStateChanged(MeetingState state) override;
  void onError(const KestrovaError& error) override;
  void onHlsStateChanged(HLSState state, const std::optional<HLSUrl>& hlsUrl) override;
  void onLivestreamStateChanged(LiveStreamState state) override;
  void onTranscriptionStateChanged(TranscriptionState state) override;
  void onTranscriptionText(const TranscriptionText& text) override;
  void onRecordingStateChanged(RecordingState state) override;
  void onPinStateChanged(const std::string& participantId, PinType pinType) override;
  void onParticipantModeChanged(const std::string& participantId, Mode mode) override;
  void onWhiteboardStarted(const std::string& url) override { hear("onWhiteboardStarted " + url); }
  void onWhiteboardStopped() override { hear("onWhiteboardStopped"); }
  void onMicChanged(const std::string& device) override { hear("onMicChanged " + device); }
  void onExternalCallRinging(const std::string& type) override {
    hear("onExternalCallRinging " + type);
  }
  void onExternalCallAnswered(const std::string& type) override {
    hear("onExternalCallAnswered " + type);
  }
  void onExternalCallRejected(const std::string& type) override {
    hear("onExternalCallRejected " + type);
  }
  void onExternalCallHangup(const std::string& type) override {
    hear("onExternalCallHangup " + type);
  }
  void onEntryResponded(const std::string& id, const std::string& decision) override;
  void onEntryRequested(const std::string& id, const std::string& name, Action allowThem,
                        Action denyThem) override;
  void onMediaRelayRequestReceived(const std::string& participantId, const std::string& meetingId,
                                   const std::string& displayName, Action acceptIt,
                                   Action rejectIt) override;
  void onMediaRelayRequestResponse(const std::string& decision, const std::string& decidedBy,
                                   const std::string& meetingId) override;
  void onMediaRelayStarted(const std::string& id) override { hear("onMediaRelayStarted " + id); }
  void onMediaRelayStopped(const std::string& id) override { hear("onMediaRelayStopped " + id); }
  void onMediaRelayError(const std::string& id, const std::string& error) override {
    hear("onMediaRelayError " + id + " " + error);
  }
  void onCharacterJoined(const std::shared_ptr<AICharacter>& character) override;
  void onCharacterLeft(const std::shared_ptr<AICharacter>& character) override;
  void onCharacterMessage(const CharacterMessage& message) override;
  void onCharacterStateChanged(const CharacterStateChange& change) override;
  void onPresenterChanged(const std::optional<std::string>& activePresenterId) override;
  void onCodecChanged(const CodecChangeInfo& info) override;
};

class RecordingParticipantListener final : public ParticipantEventListener, public Heard {
public:
  void onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                       const std::shared_ptr<Participant>& participant) override;
  void onStreamDisabled(const std::shared_ptr<MediaStream>& stream,
                        const std::shared_ptr<Participant>& participant) override;
  void onMediaStatusChanged(const std::string& peerId, MediaType kind, bool newStatus) override;
  void onStreamPaused(const std::string& kind, const std::string& reason) override {
    hear("onStreamPaused " + kind + " " + reason);
  }
  void onStreamResumed(const std::string& kind, const std::string& reason) override {
    hear("onStreamResumed " + kind + " " + reason);
  }
  void e2eeStateChanged(const std::shared_ptr<Participant>& participant, E2EEState state,
                        const std::shared_ptr<MediaStream>& stream) override;
  void onAgentStateChanged(AgentState state,
                           const std::shared_ptr<Participant>& participant) override;
  void onAgentTranscriptionReceived(const TranscriptionSegment& segment,
                                    const std::shared_ptr<Participant>& participant) override;
  void onAgentMetrics(const Dictionary& metrics,
                      const std::shared_ptr<Participant>& participant) override;
};

class RecordingCharacterListener final : public CharacterEventListener, public Heard {
public:
  void onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                       const std::shared_ptr<AICharacter>& character) override;
  void onStreamDisabled(const std::shared_ptr<MediaStream>& stream,
                        const std::shared_ptr<AICharacter>& character) override;
  void onCharacterJoined(const std::shared_ptr<AICharacter>& character) override;
  void onCharacterLeft(const std::shared_ptr<AICharacter>& character) override;
  void onCharacterMessage(const CharacterMessage& message) override;
  void onCharacterStateChanged(const CharacterStateChange& change) override;
};

}  // namespace kestrova::test
