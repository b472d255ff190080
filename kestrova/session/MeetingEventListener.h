#pragma once

#include <kestrova/model/KestrovaError.h>
#include <kestrova/model/LinkCondition.h>
#include <kestrova/model/MeetingTypes.h>
#include <kestrova/model/PinState.h>
#include <kestrova/model/ServiceStates.h>
#include <kestrova/session/AcceptMediaRequest.h>
#include <kestrova/session/CodecChangeInfo.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kestrova {

class AICharacter;
class Participant;
struct CharacterMessage;
struct CharacterStateChange;

// A listener overrides the form that it likes; the other one is not meant to be called on it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Woverloaded-virtual"

/// Everything that happens in a meeting. All operations are called on the main queue and have empty
/// defaults; any operation of the library may be called from inside them.
class MeetingEventListener {
public:
  using Action = std::function<void()>;

  virtual ~MeetingEventListener() = default;

  /// The older form of the next; the library itself raises only the next.
  virtual void onMeetingJoined() {}
  /// The join is done; `switchMeetingId` names the new meeting after a switch of rooms. Comes again
  /// after each return from a lost connection. `Meeting::participants` holds everybody who was
  /// there by now.
  virtual void onMeetingJoined(const std::optional<std::string>& switchMeetingId) {
    (void)switchMeetingId;
  }
  /// The meeting is over: once per meeting, before the form with the reason.
  virtual void onMeetingLeft() {}
  virtual void onMeetingLeft(LeaveReason reason) { (void)reason; }

  /// A remote participant is there. Those who were there before are announced at the join, too,
  /// ordinarily ahead of `onMeetingJoined`. To tell a newcomer, look at who is in
  /// `Meeting::participants` inside `onMeetingJoined`: whoever is announced later and was not among
  /// them has come since.
  ///
  /// After a lost connection everybody who is still there is announced again, as the same object
  /// and with its listeners; whoever left meanwhile is told by `onParticipantLeft` first, with the
  /// reason `unknown`. So key by `Participant::id` what is kept of a participant.
  ///
  /// A listener added to the participant in here misses none of its streams.
  virtual void onParticipantJoined(const std::shared_ptr<Participant>& participant) {
    (void)participant;
  }
  virtual void onParticipantLeft(const std::shared_ptr<Participant>& participant) {
    (void)participant;
  }
  /// The same, with the reason: `switchRoom` (1005) is a move to another meeting, theirs or this
  /// participant's own, which all those of the old meeting leave.
  virtual void onParticipantLeft(const std::shared_ptr<Participant>& participant,
                                 LeaveReason reason) {
    (void)participant, (void)reason;
  }

  virtual void onRecordingStarted() {}
  virtual void onRecordingStopped() {}
  virtual void onLivestreamStarted() {}
  virtual void onLivestreamStopped() {}

  /// Who is heard most: a participant or a character. Nothing means that nobody speaks.
  virtual void onSpeakerChanged(const std::optional<std::string>& participantId) {
    (void)participantId;
  }
  /// Somebody asks this participant to turn the microphone on. `accept()` opens the machine's
  /// device, also where `initMeeting` was given a track; `accept(stream)` publishes the
  /// application's own, for programs without devices. `reject` does nothing.
  virtual void onMicRequested(const std::optional<std::string>& participantId,
                              AcceptMediaRequest accept, Action reject) {
    (void)participantId, (void)accept, (void)reject;
  }
  /// The same for the camera.
  virtual void onWebcamRequested(const std::optional<std::string>& participantId,
                                 AcceptMediaRequest accept, Action reject) {
    (void)participantId, (void)accept, (void)reject;
  }

  /// The signalling connection reported an error; the library goes on trying as far as it can.
  virtual void onSocketError(const std::string& message) { (void)message; }
  /// Each report of the connection, and every 10 seconds while RECONNECTING.
  virtual void onMeetingStateChanged(MeetingState meetingState) { (void)meetingState; }
  virtual void onError(const KestrovaError& error) { (void)error; }

  virtual void onHlsStateChanged(HLSState state, const std::optional<HLSUrl>& hlsUrl) {
    (void)state, (void)hlsUrl;
  }
  virtual void onLivestreamStateChanged(LiveStreamState state) { (void)state; }
  virtual void onTranscriptionStateChanged(TranscriptionState state) { (void)state; }
  virtual void onTranscriptionText(const TranscriptionText& text) { (void)text; }
  virtual void onRecordingStateChanged(RecordingState state) { (void)state; }

  virtual void onPinStateChanged(const std::string& participantId, PinType pinType) {
    (void)participantId, (void)pinType;
  }
  virtual void onParticipantModeChanged(const std::string& participantId, Mode mode) {
    (void)participantId, (void)mode;
  }
  virtual void onMicChanged(const std::string& selectedDevice) { (void)selectedDevice; }

  virtual void onWhiteboardStarted(const std::string& url) { (void)url; }
  virtual void onWhiteboardStopped() {}

  /// Telephone calls on this device; `callType` is "incoming" or "outgoing".
  virtual void onExternalCallRinging(const std::string& callType) { (void)callType; }
  virtual void onExternalCallAnswered(const std::string& callType) { (void)callType; }
  virtual void onExternalCallRejected(const std::string& callType) { (void)callType; }
  virtual void onExternalCallHangup(const std::string& callType) { (void)callType; }

  /// `kind` is "audio", "video", "share" or "all".
  virtual void onPausedAllStreams(const std::string& kind) { (void)kind; }
  virtual void onResumedAllStreams(const std::string& kind) { (void)kind; }

  /// An entry request was answered: `decision` is "allowed" or "denied".
  virtual void onEntryResponded(const std::string& id, const std::string& decision) {
    (void)id, (void)decision;
  }
  /// Somebody asks to enter, and this participant may decide.
  virtual void onEntryRequested(const std::string& id, const std::string& name, Action allow,
                                Action deny) {
    (void)id, (void)name, (void)allow, (void)deny;
  }

  /// Somebody in another meeting asks to show it in this one, and this participant may decide: by
  /// one of the actions, or later by `Meeting::handleRelayRequestResponse`. Another host may have
  /// been faster, which ends in an error. A host who comes, or comes back, is asked then.
  /// \param meetingId the other meeting, here and below
  virtual void onMediaRelayRequestReceived(const std::string& participantId,
                                           const std::string& meetingId,
                                           const std::string& displayName, Action accept,
                                           Action reject) {
    (void)participantId, (void)meetingId, (void)displayName, (void)accept, (void)reject;
  }
  /// To the one who asked: "accepted" or "rejected", and by whom over there.
  virtual void onMediaRelayRequestResponse(const std::string& decision,
                                           const std::string& decidedBy,
                                           const std::string& meetingId) {
    (void)decision, (void)decidedBy, (void)meetingId;
  }
  /// In both meetings. The people of the one that asked join the other as participants. Who joins
  /// while a relay runs, or returns from a lost connection, is told of it then: so it comes again
  /// for one that was known.
  virtual void onMediaRelayStarted(const std::string& meetingId) { (void)meetingId; }
  virtual void onMediaRelayStopped(const std::string& meetingId) { (void)meetingId; }
  virtual void onMediaRelayError(const std::string& meetingId, const std::string& error) {
    (void)meetingId, (void)error;
  }

  virtual void onCharacterJoined(const std::shared_ptr<AICharacter>& character) { (void)character; }
  virtual void onCharacterLeft(const std::shared_ptr<AICharacter>& character) { (void)character; }
  virtual void onCharacterMessage(const CharacterMessage& message) { (void)message; }
  virtual void onCharacterStateChanged(const CharacterStateChange& characterStateChange) {
    (void)characterStateChange;
  }

  /// `timestamp` is in milliseconds since 1970.
  virtual void onQualityLimitation(QualityLimitationType type, QualityLimitationState state,
                                   std::int64_t timestamp) {
    (void)type, (void)state, (void)timestamp;
  }
  /// Who shares the screen; nothing when nobody does.
  virtual void onPresenterChanged(const std::optional<std::string>& activePresenterId) {
    (void)activePresenterId;
  }
  /// The camera is sent with another codec from now on.
  virtual void onCodecChanged(const CodecChangeInfo& info) { (void)info; }
};

#pragma GCC diagnostic pop

}  // namespace kestrova
