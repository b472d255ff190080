#include "RecordingListeners.h"

#include <kestrova/platform/Values.h>
#include <kestrova/session/AICharacter.h>
#include <kestrova/session/Participant.h>

#include <algorithm>

namespace kestrova::test {
namespace {

std::string orNobody(const std::optional<std::string>& id) {
  return id.value_or("nobody");
}

std::string described(const CharacterMessage& message) {
  return "onCharacterMessage " + message.characterId + " " + message.text;
}

std::string described(const CharacterStateChange& change) {
  return "onCharacterStateChanged " + change.id + " " + std::string(text(change.status));
}

}  // namespace

long Heard::count(std::string_view prefix) const {
  return std::count_if(_lines.begin(), _lines.end(),
                       [&](const std::string& line) { return line.starts_with(prefix); });
}

void Heard::hear(std::string line) {
  _lines.push_back(line);
  const auto reactions = _reactions;
  for (const auto& [prefix, action] : reactions)
    if (line.starts_with(prefix)) action();
}

void RecordingListener::onMeetingJoined(const std::optional<std::string>& switchMeetingId) {
  hear("onMeetingJoined" + (switchMeetingId ? " " + *switchMeetingId : ""));
}
void RecordingListener::onMeetingLeft(LeaveReason reason) {
  hear("onMeetingLeft " + std::string(name(reason)));
}
void RecordingListener::onQualityLimitation(QualityLimitationType type,
                                            QualityLimitationState state, std::int64_t timestamp) {
  hear("onQualityLimitation " + std::string(text(type)) + " " + std::string(text(state)) + " at " +
       std::to_string(timestamp));
}

void RecordingListener::onParticipantJoined(const std::shared_ptr<Participant>& participant) {
  joined.push_back(participant);
  hear("onParticipantJoined " + participant->id());
}
void RecordingListener::onParticipantLeft(const std::shared_ptr<Participant>& participant) {
  hear("onParticipantLeft " + participant->id());
}
void RecordingListener::onParticipantLeft(const std::shared_ptr<Participant>& participant,
                                          LeaveReason reason) {
  hear("onParticipantLeft " + participant->id() + " " + std::string(name(reason)));
}
void RecordingListener::onSpeakerChanged(const std::optional<std::string>& participantId) {
  hear("onSpeakerChanged " + orNobody(participantId));
}
void RecordingListener::onMicRequested(const std::optional<std::string>& participantId,
                                       AcceptMediaRequest acceptIt, Action /*reject*/) {
  accept.push_back(std::move(acceptIt));
  hear("onMicRequested " + orNobody(participantId));
}
void RecordingListener::onWebcamRequested(const std::optional<std::string>& participantId,
                                          AcceptMediaRequest acceptIt, Action /*reject*/) {
  accept.push_back(std::move(acceptIt));
  hear("onWebcamRequested " + orNobody(participantId));
}
void RecordingListener::onMeetingStateChanged(MeetingState state) {
  hear("onMeetingStateChanged " + std::string(name(state)));
}
void RecordingListener::onError(const KestrovaError& error) {
  errors.push_back(error);
  hear("onError " + std::to_string(error.rawValue()) + " " + std::string(error.name()));
}
void RecordingListener::onHlsStateChanged(HLSState state, const std::optional<HLSUrl>& hlsUrl) {
  const auto url = hlsUrl ? hlsUrl->playbackHlsUrl : std::nullopt;
  hear("onHlsStateChanged " + std::string(hlsStateTexts(state)) + " " + url.value_or("no url"));
}
void RecordingListener::onLivestreamStateChanged(LiveStreamState state) {
  hear("onLivestreamStateChanged " + std::string(liveStreamStateTexts(state)));
}
void RecordingListener::onTranscriptionStateChanged(TranscriptionState state) {
  hear("onTranscriptionStateChanged " + std::string(transcriptionStateTexts(state)));
}
void RecordingListener::onTranscriptionText(const TranscriptionText& text) {
  hear("onTranscriptionText " + text.participantId + " " + text.text);
}
void RecordingListener::onRecordingStateChanged(RecordingState state) {
  hear("onRecordingStateChanged " + std::string(recordingStateTexts(state)));
}
void RecordingListener::onPinStateChanged(const std::string& participantId, PinType pinType) {
  constexpr EnumTexts<PinType, 3> texts{{"SHARE_AND_CAM", "CAM", "SHARE"}};
  hear("onPinStateChanged " + participantId + " " + std::string(texts(pinType)));
}
void RecordingListener::onParticipantModeChanged(const std::string& participantId, Mode mode) {
  hear("onParticipantModeChanged " + participantId + " " + std::string(wireText(mode)));
}
void RecordingListener::onEntryResponded(const std::string& id, const std::string& decision) {
  hear("onEntryResponded " + id + " " + decision);
}
void RecordingListener::onEntryRequested(const std::string& id, const std::string& name,
                                         Action allowThem, Action denyThem) {
  allow[id] = std::move(allowThem);
  deny[id] = std::move(denyThem);
  hear("onEntryRequested " + id + " " + name);
}
void RecordingListener::onMediaRelayRequestReceived(const std::string& participantId,
                                                    const std::string& meetingId,
                                                    const std::string& displayName, Action acceptIt,
                                                    Action rejectIt) {
  relayAnswers = {std::move(acceptIt), std::move(rejectIt)};
  hear("onMediaRelayRequestReceived " + participantId + " " + meetingId + " " + displayName);
}
void RecordingListener::onMediaRelayRequestResponse(const std::string& decision,
                                                    const std::string& decidedBy,
                                                    const std::string& meetingId) {
  hear("onMediaRelayRequestResponse " + decision + " " + decidedBy + " " + meetingId);
}
void RecordingListener::onCharacterJoined(const std::shared_ptr<AICharacter>& character) {
  characters.push_back(character);
  hear("onCharacterJoined " + character->characterId());
}
void RecordingListener::onCharacterLeft(const std::shared_ptr<AICharacter>& character) {
  hear("onCharacterLeft " + character->characterId());
}
void RecordingListener::onCharacterMessage(const CharacterMessage& message) {
  hear(described(message));
}
void RecordingListener::onCharacterStateChanged(const CharacterStateChange& change) {
  hear(described(change));
}
void RecordingListener::onPresenterChanged(const std::optional<std::string>& activePresenterId) {
  hear("onPresenterChanged " + orNobody(activePresenterId));
}
void RecordingListener::onCodecChanged(const CodecChangeInfo& info) {
  hear("onCodecChanged " + std::string(text(info.previousCodec)) + " to " +
       std::string(text(info.currentCodec)));
}

void RecordingParticipantListener::onStreamEnabled(
    const std::shared_ptr<MediaStream>& stream, const std::shared_ptr<Participant>& participant) {
  hear("onStreamEnabled " + stream->id() + " " + std::string(text(stream->kind())) + " of " +
       participant->id());
}
void RecordingParticipantListener::onStreamDisabled(
    const std::shared_ptr<MediaStream>& stream, const std::shared_ptr<Participant>& participant) {
  hear("onStreamDisabled " + stream->id() + " " + std::string(text(stream->kind())) + " of " +
       participant->id());
}
void RecordingParticipantListener::e2eeStateChanged(const std::shared_ptr<Participant>& participant,
                                                    E2EEState state,
                                                    const std::shared_ptr<MediaStream>& stream) {
  hear("e2eeStateChanged " + stream->id() + " of " + participant->id() + " " +
       std::string(text(state)));
}
void RecordingParticipantListener::onMediaStatusChanged(const std::string& peerId, MediaType kind,
                                                        bool newStatus) {
  hear("onMediaStatusChanged " + peerId + " " + std::string(text(kind)) +
       (newStatus ? " on" : " off"));
}

void RecordingParticipantListener::onAgentStateChanged(
    AgentState state, const std::shared_ptr<Participant>& participant) {
  hear("onAgentStateChanged " + participant->id() + " " + std::string(text(state)));
}
void RecordingParticipantListener::onAgentTranscriptionReceived(
    const TranscriptionSegment& segment, const std::shared_ptr<Participant>& participant) {
  hear("onAgentTranscriptionReceived " + participant->id() + " " + segment.text + " " +
       std::to_string(segment.timestamp));
}
void RecordingParticipantListener::onAgentMetrics(const Dictionary& metrics,
                                                  const std::shared_ptr<Participant>& participant) {
  hear("onAgentMetrics " + participant->id() + " " + jsonText(metrics).value_or(""));
}

void RecordingCharacterListener::onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                                                 const std::shared_ptr<AICharacter>& character) {
  hear("onStreamEnabled " + stream->id() + " of " + character->characterId());
}
void RecordingCharacterListener::onStreamDisabled(const std::shared_ptr<MediaStream>& stream,
                                                  const std::shared_ptr<AICharacter>& character) {
  hear("onStreamDisabled " + stream->id() + " of " + character->characterId());
}
void RecordingCharacterListener::onCharacterJoined(const std::shared_ptr<AICharacter>& character) {
  hear("onCharacterJoined " + character->characterId());
}
void RecordingCharacterListener::onCharacterLeft(const std::shared_ptr<AICharacter>& character) {
  hear("onCharacterLeft " + character->characterId());
}
void RecordingCharacterListener::onCharacterMessage(const CharacterMessage& message) {
  hear(described(message));
}
void RecordingCharacterListener::onCharacterStateChanged(const CharacterStateChange& change) {
  hear(described(change));
}

}  // namespace kestrova::test
