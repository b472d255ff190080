#pragma once

#include <kestrova/session/MeetingEventListener.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kestrova {

/// What a program wants to hear of a meeting, as functions instead of a class. Each has the name
/// and the arguments of its operation in `MeetingEventListener`, the fullest where there are
/// several, and is called on the main queue.
///
///     auto listening = meeting->listen({.onMeetingJoined = [](const auto&) { std::puts("in"); },
///                                       .onError = [](const auto& error) { complain(error); }});
///
/// The names are given in this order; those that are left out are not heard.
struct MeetingEvents {
  std::function<void(const std::optional<std::string>&)> onMeetingJoined = {};
  std::function<void(LeaveReason)> onMeetingLeft = {};
  std::function<void(const std::shared_ptr<Participant>&)> onParticipantJoined = {};
  std::function<void(const std::shared_ptr<Participant>&, LeaveReason)> onParticipantLeft = {};
  std::function<void()> onRecordingStarted = {};
  std::function<void()> onRecordingStopped = {};
  std::function<void()> onLivestreamStarted = {};
  std::function<void()> onLivestreamStopped = {};
  std::function<void(const std::optional<std::string>&)> onSpeakerChanged = {};
  std::function<void(const std::optional<std::string>&, AcceptMediaRequest,
                     MeetingEventListener::Action)>
      onMicRequested = {};
  std::function<void(const std::optional<std::string>&, AcceptMediaRequest,
                     MeetingEventListener::Action)>
      onWebcamRequested = {};
  std::function<void(const std::string&)> onSocketError = {};
  std::function<void(MeetingState)> onMeetingStateChanged = {};
  std::function<void(const KestrovaError&)> onError = {};
  std::function<void(HLSState, const std::optional<HLSUrl>&)> onHlsStateChanged = {};
  std::function<void(LiveStreamState)> onLivestreamStateChanged = {};
  std::function<void(TranscriptionState)> onTranscriptionStateChanged = {};
  std::function<void(const TranscriptionText&)> onTranscriptionText = {};
  std::function<void(RecordingState)> onRecordingStateChanged = {};
  std::function<void(const std::string&, PinType)> onPinStateChanged = {};
  std::function<void(const std::string&, Mode)> onParticipantModeChanged = {};
  std::function<void(const std::string&)> onMicChanged = {};
  std::function<void(const std::string&)> onWhiteboardStarted = {};
  std::function<void()> onWhiteboardStopped = {};
  std::function<void(const std::string&)> onExternalCallRinging = {};
  std::function<void(const std::string&)> onExternalCallAnswered = {};
  std::function<void(const std::string&)> onExternalCallRejected = {};
  std::function<void(const std::string&)> onExternalCallHangup = {};
  std::function<void(const std::string&)> onPausedAllStreams = {};
  std::function<void(const std::string&)> onResumedAllStreams = {};
  std::function<void(const std::string&, const std::string&)> onEntryResponded = {};
  std::function<void(const std::string&, const std::string&, MeetingEventListener::Action,
                     MeetingEventListener::Action)>
      onEntryRequested = {};
  std::function<void(const std::string&, const std::string&, const std::string&,
                     MeetingEventListener::Action, MeetingEventListener::Action)>
      onMediaRelayRequestReceived = {};
  std::function<void(const std::string&, const std::string&, const std::string&)>
      onMediaRelayRequestResponse = {};
  std::function<void(const std::string&)> onMediaRelayStarted = {};
  std::function<void(const std::string&)> onMediaRelayStopped = {};
  std::function<void(const std::string&, const std::string&)> onMediaRelayError = {};
  std::function<void(const std::shared_ptr<AICharacter>&)> onCharacterJoined = {};
  std::function<void(const std::shared_ptr<AICharacter>&)> onCharacterLeft = {};
  std::function<void(const CharacterMessage&)> onCharacterMessage = {};
  std::function<void(const CharacterStateChange&)> onCharacterStateChanged = {};
  std::function<void(QualityLimitationType, QualityLimitationState, std::int64_t)>
      onQualityLimitation = {};
  std::function<void(const std::optional<std::string>&)> onPresenterChanged = {};
  std::function<void(const CodecChangeInfo&)> onCodecChanged = {};
};

/// The listener that calls these functions.
std::shared_ptr<MeetingEventListener> makeListener(MeetingEvents events);

}  // namespace kestrova
