#include <kestrova/signalling/RoomSwitch.h>
#include <kestrova/tracing/Trace.h>

#include <algorithm>
#include <utility>

namespace kestrova {

Task<void> RoomSwitch::switchTo(std::optional<std::string> token, std::string meetingId,
                                Mode mode) {
  const auto self = shared_from_this();
  const auto& participantId = _context->options.meeting.localParticipantId;
  const int number = noteAsked(meetingId, token);
  Dictionary data{{"meetingId", meetingId},
                  {"secret", token.value_or("")},
                  {"participantId", participantId},
                  {"mode", wireText(mode)}};
  auto asking =
      _serviceRequests->ask(ServiceOperation::switchTo, std::move(data),
                            {.attributes = {{"peer.id", participantId}, {"meetingId", meetingId}},
                             .secrets = {token.value_or("")}});
  const bool taken = co_await std::move(asking);
  if (!taken) forgetAsked(number);
}

void RoomSwitch::softClose(const std::string& nextMeetingId) {
  takeOver(nextMeetingId);
  _context->pubSubEndpointStore.awaitJoin();
  if (const auto files = _context->fileUpload())
    _context->setFileUpload(files->forMeeting(nextMeetingId));
  _consuming->closeAllConsumers();
  trace("Cleaned up media streams successfully");
  onMain(_context, [](RoomContext&, RoomClientDelegate& meeting) {
    meeting.handleOnRemoveCurrentMeetingParticipant();
  });
}

void RoomSwitch::takeOver(const std::string& meetingId) {
  std::optional<std::string> token;
  {
    std::scoped_lock held(_lock);
    int taken = 0;
    for (const auto& asked : _asked) {
      if (asked.meetingId != meetingId) continue;
      token = asked.token;
      taken = asked.number;
    }
    // It has taken the place of what was asked before.
    for (auto& asked : _asked) asked.isDecided |= asked.number <= taken;
    _move = Move{meetingId, _context->connections->current()};
  }
  _context->socketRequestHandler->moveTo(meetingId, token);
}

int RoomSwitch::noteAsked(const std::string& meetingId, std::optional<std::string> token) {
  std::scoped_lock held(_lock);
  const int number = ++_askedSoFar;
  _asked.push_back({number, meetingId, std::move(token), _context->connections->current()});
  return number;
}

void RoomSwitch::forgetAsked(int number) {
  std::scoped_lock held(_lock);
  std::erase_if(_asked, [&](const Asked& asked) { return asked.number == number; });
}

void RoomSwitch::moved(const std::string& meetingId) {
  std::scoped_lock held(_lock);
  if (_move && _move->meetingId == meetingId) _move.reset();
}

std::optional<std::string> RoomSwitch::movingTo() const {
  std::scoped_lock held(_lock);
  return _move ? std::optional(_move->meetingId) : std::nullopt;
}

void RoomSwitch::allDecided() {
  std::scoped_lock held(_lock);
  for (auto& asked : _asked) asked.isDecided = true;
}

bool RoomSwitch::takeForgotten(const Connection& now) {
  std::scoped_lock held(_lock);
  const auto isEarlier = [&](const Asked& asked) { return asked.connection != now; };
  const bool isForgotten = std::any_of(_asked.begin(), _asked.end(), [&](const Asked& asked) {
    return isEarlier(asked) && !asked.isDecided;
  });
  std::erase_if(_asked, isEarlier);
  return isForgotten;
}

std::optional<std::string> RoomSwitch::takeInterrupted(const Connection& now) {
  std::scoped_lock held(_lock);
  if (!_move || _move->connection == now) return std::nullopt;
  return std::exchange(_move, std::nullopt)->meetingId;
}

Task<void> RoomSwitch::switchingRoom(std::string meetingId, Mode mode, bool isBatchingEnabled,
                                     Connection connection) {
  const auto self = shared_from_this();
  const auto& displayName = _context->options.meeting.localParticipantName;
  // The return carries it on, or another move has followed.
  if (!connection.isCurrent() || movingTo() != meetingId) co_return;
  ScopedSpan span("Switching room", {{"room.id", meetingId}, {"displayName", displayName}});
  bool failed = false;
  try {
    ScopedSpan requesting("Requesting to join switched room", {}, span.scope());
    auto joining =
        _joinSequence->join(CameraPosition::front, true, mode, isBatchingEnabled, connection);
    const auto unsupportedCodecs = co_await std::move(joining);
    if (!unsupportedCodecs || movingTo() != meetingId) {
      for (auto* each : {&requesting, &span})
        each->interrupt(connection.isCurrent() ? "interrupted by another move"
                                               : "interrupted by the loss of the connection");
      co_return;
    }
    requesting.event("Requested to join switched room successfully");
    moved(meetingId);
    const auto delegate = _context->delegate();
    if (!delegate) co_return;
    if (!unsupportedCodecs->empty()) delegate->switchRoomUnsupportedCodecs(*unsupportedCodecs);
    span.event("Emitting MEETING_JOINED Event");
    onMain(_context, [meetingId](RoomContext& context, RoomClientDelegate& meeting) {
      // A meeting that was left by now is not joined; one that lost its connection was joined.
      if (!context.connections->isOver()) meeting.meetingJoined(meetingId);
    });
    span.event("Requested room switch completed successfully");
  } catch (const std::exception& error) {
    span.fail(std::string("Switching room failed with error: ") + error.what());
    failed = true;
  }
  if (failed) co_await _teardown->closeRoom(LeaveReason::switchRoomFailed);
}

}  // namespace kestrova
