#pragma once

#include <kestrova/platform/Queue.h>
#include <kestrova/session/MeetingContext.h>

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

namespace kestrova {

/// The remote participants of a meeting, who shares the screen, and what is pinned.
///
/// Events for a participant or a stream that is not known are dropped. What changes who is there,
/// or what they send, is called on the main queue; questions may be asked on any thread.
class ParticipantRegistry : public std::enable_shared_from_this<ParticipantRegistry> {
public:
  using Participants = std::map<std::string, std::shared_ptr<Participant>>;
  using Pins = std::map<std::string, ParticipantPinState>;

  explicit ParticipantRegistry(std::shared_ptr<MeetingContext> context);

  Participants participants() const;
  std::shared_ptr<Participant> participant(const std::string& id) const;
  /// Whose stream it is; nothing when nobody of the others has it.
  std::shared_ptr<Participant> participantForStream(const std::string& streamId) const;
  std::optional<std::string> activePresenterId() const;
  Pins pinnedParticipants() const;

  void addParticipant(const Peer& peer, std::weak_ptr<MeetingActionValidating> validator);
  /// After a connection that was lost: who is not among those whom the service lists has left.
  void keepOnly(const std::set<std::string>& ids);
  /// Everybody leaves: the local participant moves to another meeting.
  void removeAll(LeaveReason leaveReason);
  void removeParticipant(const std::string& id, LeaveReason leaveReason);
  /// \returns whether such a participant is here
  bool addStream(const std::shared_ptr<MediaStream>& stream, const std::string& participantId);
  /// \returns whether somebody had it
  bool removeStream(const std::string& id);
  /// The meeting is over: whoever listens to a stream hears its end.
  void endStreams();
  /// The meeting was let go of: nobody hears anything any more.
  void dismissListeners();
  /// The meeting is over: everybody goes without an event.
  void clear();

  void handleStreamStateChange(StreamState state, const std::string& peerId,
                               const std::string& trackId);
  /// \returns whether it was a stream of somebody's here
  bool takeMetrics(const StreamMeasurement& measured);
  /// For the local participant, too.
  void e2eeStateChanged(const std::string& peerID, E2EEState state, const std::string& streamId);
  void participantMediaStatusChanged(const std::string& peerId, const std::string& kind,
                                     bool newState);
  void participantModeChanged(const std::string& participantId, Mode mode);
  void pinStateChanged(const std::string& participantId, ParticipantPinState pinState);
  void forgetPins();
  void handleParticipantPausedBySubManager(const Dictionary& data);
  void handleParticipantResumeBySubManager(const Dictionary& data);
  /// Of an agent; for anybody else these are dropped.
  void agentStateChanged(const std::string& peerId, AgentState state);
  void agentTranscriptReceived(const std::string& peerId, const TranscriptionSegment& segment);
  void agentMetricsReceived(const std::string& peerId, const Dictionary& metrics);
  void speakerChanged(const std::optional<std::string>& participantId);

private:
  /// Also finds the local participant.
  std::shared_ptr<Participant> anybody(const std::string& id) const;
  std::shared_ptr<AgentParticipant> agent(const std::string& id) const;
  void setPresenter(const std::string& participantId);
  /// Nobody presents any more, if it was this one.
  void endPresenting(const std::string& participantId);
  void tellPresenter(const std::optional<std::string>& participantId);

  const std::shared_ptr<MeetingContext> _context;
  const std::shared_ptr<SerialQueue> _participantQueue;
  Participants _participants;  // on _participantQueue; never holds the local participant

  mutable std::mutex _presenterLock;
  std::optional<std::string> _activePresenterId;
  mutable std::mutex _pinnedLock;
  Pins _pinnedParticipants;
};

}  // namespace kestrova
