#pragma once

#include <kestrova/model/MeetingAction.h>
#include <kestrova/session/CharacterRegistry.h>
#include <kestrova/session/MediaControls.h>
#include <kestrova/session/MeetingContext.h>
#include <kestrova/session/MeetingOver.h>
#include <kestrova/session/MeetingRealtime.h>
#include <kestrova/session/ParticipantRegistry.h>
#include <kestrova/session/ReconnectHeartbeat.h>
#include <kestrova/session/ServiceStatus.h>
#include <kestrova/session/SessionIdentity.h>
#include <kestrova/tracing/Trace.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

/// A meeting's states: how it joins, is entered, is joined, drops, and ends once.
///
/// Long steps run as detached tasks that hold this object weakly.
class MeetingLifecycle : public std::enable_shared_from_this<MeetingLifecycle> {
public:
  MeetingLifecycle(std::shared_ptr<MeetingContext> context,
                   std::shared_ptr<ParticipantRegistry> registry,
                   std::shared_ptr<CharacterRegistry> characters,
                   std::shared_ptr<MediaControls> media, std::shared_ptr<MeetingRealtime> realtime,
                   std::shared_ptr<ServiceStatus> services);

  SessionIdentity identity;
  /// The one end, whichever way it comes.
  const std::shared_ptr<MeetingOver> over = std::make_shared<MeetingOver>();

  MeetingState meetingState() const;
  std::mutex& meetingStateLock() const { return _meetingStateLock; }
  std::optional<MeetingActionValidationFailure> meetingActionState() const;
  /// Remembered until the next join, which traces it.
  void noteListenerAttached();

  void join();
  void leave();
  /// The guard has let it through.
  void end();
  /// The application let go of the meeting: everything closes, and nothing waits for the service.
  void abandon();
  /// The connection reported what is wrong; it may be why the meeting ends.
  void noteSocketError(const std::string& message);

  void entryResponded(const Dictionary& payload);
  /// The only way by which the connection changes the state; called with the state's lock held.
  void meetingStateChanged(MeetingState state);
  Task<void> closeMeetingRequested(LeaveReason leaveReason);
  Task<void> disconnected(std::optional<LeaveReason> leaveReason);
  /// The move to another meeting is done. On the main queue.
  void meetingMoved(const std::string& meetingId);

private:
  /// \returns what connects; nothing when the media engine can't be made
  std::optional<Task<void>> prepareJoin();
  void failed(const std::string& cause);
  /// Whether this connection has not been let in before; it is joined once, however often the
  /// service says that it may.
  bool claimEntry(const Connection& connection);
  Task<void> connected(Connection connection);
  /// \returns the codecs that the room can't decode; nothing when the join came to nothing
  Task<std::optional<std::vector<std::string>>> joinRoom(Connection connection, Mode mode,
                                                         std::optional<SpanScope> joinSpan);
  void enterSession(const std::string& sessionId);
  void switchRoom(const std::string& meetingId, const std::string& sessionId, ScopedSpan& span);
  static Task<void> moveTo(std::shared_ptr<MeetingLifecycle> self, std::string meetingId,
                           Connection connection);
  void emitJoined(const std::optional<SpanScope>& joinSpan, Connection connection);
  void emitLeft(LeaveReason reason);
  void endFailed();
  void releaseListeners();
  void emitState(MeetingState state);
  bool claimLeftEvents(LeaveReason reason);
  void startReconnectHeartbeat();
  void stopHeartbeat();
  std::optional<KestrovaError> refuseLeave();

  const std::shared_ptr<MeetingContext> _context;
  const std::shared_ptr<ParticipantRegistry> _registry;
  const std::shared_ptr<CharacterRegistry> _characters;
  const std::shared_ptr<ServiceStatus> _services;
  const std::shared_ptr<MediaControls> _media;
  const std::shared_ptr<MeetingRealtime> _realtime;

  mutable std::mutex _meetingStateLock;
  MeetingState _meetingState = MeetingState::CONNECTING;
  bool _didEmitMeetingLeft = false;
  std::optional<Connection> _entered;

  std::atomic<bool> _listenerAttached{false};
  std::atomic<bool> _joining{false};
  std::atomic<bool> _wasJoined{false};
  std::atomic<bool> _tearingDown{false};

  std::shared_ptr<ReconnectHeartbeat> _heartbeat;  // on the main queue
};

}  // namespace kestrova
