#include <kestrova/session/BackendLog.h>
#include <kestrova/session/JoinedMeetings.h>
#include <kestrova/session/Kestrova.h>
#include <kestrova/session/MeetingLifecycle.h>
#include <kestrova/signalling/Response.h>
#include <kestrova/tracing/Trace.h>

#include <boost/algorithm/string/case_conv.hpp>

#include <algorithm>
#include <utility>

namespace kestrova {
namespace {

using Slot = RoomSpans::Slot;

/// Keeps the client alive until it is down.
void disconnectLater(std::shared_ptr<RoomClient> client, LeaveReason reason,
                     std::shared_ptr<void> goodbye) {
  auto task = [](std::shared_ptr<RoomClient> kept, LeaveReason why,
                 std::shared_ptr<void> said) -> Task<void> {
    auto leaving = kept->disconnect(why, true, std::move(said));
    co_await std::move(leaving);
  };
  spawn(task(std::move(client), reason, std::move(goodbye)));
}

}  // namespace

MeetingLifecycle::MeetingLifecycle(std::shared_ptr<MeetingContext> context,
                                   std::shared_ptr<ParticipantRegistry> registry,
                                   std::shared_ptr<CharacterRegistry> characters,
                                   std::shared_ptr<MediaControls> media,
                                   std::shared_ptr<MeetingRealtime> realtime,
                                   std::shared_ptr<ServiceStatus> services)
    : _context(std::move(context)),
      _registry(std::move(registry)),
      _characters(std::move(characters)),
      _services(std::move(services)),
      _media(std::move(media)),
      _realtime(std::move(realtime)) {}

MeetingState MeetingLifecycle::meetingState() const {
  std::scoped_lock held(_meetingStateLock);
  return _meetingState;
}

std::optional<MeetingActionValidationFailure> MeetingLifecycle::meetingActionState() const {
  const bool joined = _context->joined();
  const auto state = meetingState();
  // A meeting that was joined and is over will answer nothing more, whatever its state is called.
  if (state == MeetingState::DISCONNECTED || (_wasJoined && _context->connections->isOver()))
    return MeetingActionValidationFailure::meetingAlreadyLeft;
  if (!joined) return MeetingActionValidationFailure::meetingNotJoined;
  if (state == MeetingState::RECONNECTING)
    return MeetingActionValidationFailure::meetingReconnecting;
  return std::nullopt;
}

void MeetingLifecycle::noteListenerAttached() {
  _listenerAttached = true;
}

// ---- Joining -----------------------------------------------------------------------------------

void MeetingLifecycle::join() {
  if (meetingState() != MeetingState::CONNECTING || _joining.exchange(true)) return;
  over->keepLoopRunning();
  // The look-up of the service takes what time it takes; it keeps nothing of the meeting alive.
  auto task = [](std::weak_ptr<MeetingLifecycle> weak) -> Task<void> {
    auto self = weak.lock();
    auto connecting = self ? self->prepareJoin() : std::nullopt;
    self.reset();
    if (!connecting) co_return;
    std::string failure;
    try {
      co_await std::move(*connecting);
    } catch (const std::exception& error) {
      failure = error.what();
    }
    self = weak.lock();
    if (self && !failure.empty()) self->failed(failure);
    if (self && self->_listenerAttached.exchange(false)) trace("Listener added to Meeting");
  };
  spawn(task(weak_from_this()));
}

std::optional<Task<void>> MeetingLifecycle::prepareJoin() {
  auto& tracer = SdkTracer::shared();
  tracer.ensureTelemetryOutput();
  tracer.ensureClientConsoleOutput();
  try {
    const auto client = _context->roomClient();
    JoinedMeetings::shared().add(weak_from_this());
    return client->connect(Kestrova::baseKeyProvider());
  } catch (const std::exception& error) {
    failed(error.what());
  }
  return std::nullopt;
}

/// There is nothing to join with, as without a media engine, or no way to find out where.
void MeetingLifecycle::failed(const std::string& cause) {
  traceError("Could not join the room due to an error.", {{"error", cause}});
  const auto error = KestrovaError::ERROR_UNABLE_TO_JOIN_MEETING.withCause(cause);
  over->noteError(error);
  _context->onError(error);
  std::scoped_lock held(_meetingStateLock);
  meetingStateChanged(MeetingState::FAILED);
}

bool MeetingLifecycle::claimEntry(const Connection& connection) {
  std::scoped_lock held(_meetingStateLock);
  return std::exchange(_entered, connection) != connection;
}

void MeetingLifecycle::entryResponded(const Dictionary& payload) {
  const auto sessionId = text(payload, "sessionId");
  const auto id = text(payload, "id");
  const auto decision = text(payload, "decision");
  const bool isWhole = sessionId && id && decision;
  _context->roomClient()->noteSession(isWhole ? sessionId : std::nullopt);
  if (!isWhole || _context->connections->isOver()) return;

  const bool isMine = *id == _context->localParticipant->id();
  const auto switchingRoomId = text(payload, "switchingRoomId");
  const auto client = _context->roomClient();
  if (isMine && !switchingRoomId)
    client->logTo(makeBackendLog(client->requests()->meetingId(), *id, *sessionId));
  auto& spans = client->spans();
  const auto entrySpan = spans.get(Slot::requestEntry);
  ScopedSpan span([&] { return "Entry response: " + boost::algorithm::to_upper_copy(*decision); },
                  {{"peer.id", *id},
                   {"entry.decision", *decision},
                   {"switching_room", switchingRoomId.has_value()},
                   {"switchingRoomId", switchingRoomId.value_or("N/A")}},
                  entrySpan);
  if (switchingRoomId) {
    switchRoom(*switchingRoomId, *sessionId, span);
    return;
  }
  const bool isAllowed = *decision == "allowed";
  if (isMine) spans.finish(Slot::requestEntry, {.success = isAllowed, .message = *decision});
  if (isMine && isAllowed) {
    trace("Entry Responded", {}, entrySpan);
    enterSession(*sessionId);
    auto task = [](std::weak_ptr<MeetingLifecycle> weak, Connection connection) -> Task<void> {
      if (const auto self = weak.lock()) co_await self->connected(std::move(connection));
    };
    auto connection = _context->connections->current();
    if (claimEntry(connection)) spawn(task(weak_from_this(), std::move(connection)));
  } else {
    trace("Entry denied", {}, entrySpan);
    // A host hears of the others' requests, too, whoever decided them.
    (isMine ? traceError : trace)("Join Request Denied", {}, entrySpan);
  }
  identity.note(*sessionId, *id);
  const auto traceIt = [id = *id, decision = *decision] {
    trace("Emitting ENTRY_RESPONDED Event", {{"peerId", id}, {"decision", decision}});
  };
  _context->emit(traceIt, [id = *id, decision = *decision](auto& listener) {
    listener.onEntryResponded(id, decision);
  });
  const bool isDenied = isMine && *decision == "denied";
  if (isDenied) _context->roomClient()->switchesDecided();
  if (isDenied && !_wasJoined)
    MainQueue::shared().async([weak = weak_from_this()] {
      const auto self = weak.lock();
      if (!self) return;
      // Nothing is taken down: a host may think again while the program keeps the meeting.
      self->over->decide({.kind = MeetingEnd::Kind::denied});
      self->over->heard();
    });
}

/// Whatever ran and whoever was there is gone where the meeting ended while this participant was
/// away, and began anew. On the socket's queue, before the join.
void MeetingLifecycle::enterSession(const std::string& sessionId) {
  if (!identity.enter(sessionId)) return;
  MainQueue::shared().async([weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    self->_characters->removeAll();
    self->_services->stopAll();
  });
}

void MeetingLifecycle::switchRoom(const std::string& meetingId, const std::string& sessionId,
                                  ScopedSpan& span) {
  const auto client = _context->roomClient();
  if (meetingId == client->requests()->meetingId()) {
    client->switchesDecided();
    traceDebug("You have entered same meeting ID. Nothing to do.");
    return;
  }
  span.event("Switching room initiated");
  identity.enter(sessionId);
  client->logTo(makeBackendLog(meetingId, _context->localParticipant->id(), sessionId));
  client->softClose(meetingId);
  _realtime->tearDownTopics();
  spawn(moveTo(shared_from_this(), meetingId, _context->connections->current()));
}

Task<void> MeetingLifecycle::moveTo(std::shared_ptr<MeetingLifecycle> self, std::string meetingId,
                                    Connection connection) {
  const auto context = self->_context;
  const auto turn = co_await context->roads.acquire();
  auto moving = context->roomClient()->switchingRoom(std::move(meetingId), context->sending->mode(),
                                                     context->settings.batchingEnabled, connection);
  co_await std::move(moving);
}

Task<void> MeetingLifecycle::connected(Connection connection) {
  const auto self = shared_from_this();
  const auto turn = co_await _context->roads.acquire();
  if (!connection.isCurrent()) co_return;
  const auto client = _context->roomClient();
  const auto mode = _context->sending->mode();
  const auto joinSpan = client->spans().get(Slot::join);
  auto setup = client->setupDeviceAndTransports(false, joinSpan, sendsMedia(mode),
                                                receivesMedia(mode), connection);
  co_await std::move(setup);
  if (!connection.isCurrent()) co_return;
  auto joining = joinRoom(connection, mode, joinSpan);
  const auto unsupportedCodecs = co_await std::move(joining);
  if (!unsupportedCodecs) co_return;
  _context->setJoinedOn(connection);
  emitJoined(joinSpan, connection);
  _media->camera->recordUnsupportedCodecs(*unsupportedCodecs);
  auto starting = _media->startWishedMedia(mode, connection, joinSpan);
  co_await std::move(starting);
  if (!connection.isCurrent()) co_return;
  trace("Meeting Joined", {}, joinSpan);
  client->spans().finish(Slot::join);
}

Task<std::optional<std::vector<std::string>>> MeetingLifecycle::joinRoom(
    Connection connection, Mode mode, std::optional<SpanScope> joinSpan) {
  std::string failure;
  try {
    auto joining = _context->roomClient()->join(CameraPosition::front, false, mode,
                                                _context->settings.batchingEnabled, connection);
    co_return co_await std::move(joining);
  } catch (const std::exception& error) {
    failure = error.what();
  }
  if (!connection.isCurrent()) co_return std::nullopt;
  noteSocketError(failure);  // the cause that the end tells
  const auto line = "Could not join the room " + failure;
  traceError(line, {}, joinSpan);
  _context->roomClient()->spans().finish(Slot::join, {.success = false, .message = line});
  {
    std::scoped_lock held(_meetingStateLock);
    _meetingState = MeetingState::DISCONNECTED;
  }
  co_await closeMeetingRequested(LeaveReason::joinRoomFailed);
  co_return std::nullopt;
}

void MeetingLifecycle::emitJoined(const std::optional<SpanScope>& joinSpan, Connection connection) {
  // The guard must let operations through from the moment the application hears of the join.
  MainQueue::shared().async([weak = weak_from_this(), joinSpan, connection] {
    const auto self = weak.lock();
    if (!self || !connection.isCurrent() || self->_context->connections->isOver()) return;
    const auto client = self->_context->roomClient();
    self->_context->localParticipant->setDelegate(client);
    self->_context->setE2eeEnabled(client->isEncrypted());
    trace("Emitting MEETING_JOINED Event", {}, joinSpan);
    client->setJoined(true);
    self->_wasJoined = true;
    // A move to another meeting that a drop interrupted ends here.
    if (const auto moved = client->takeInterruptedSwitch(connection)) {
      self->meetingMoved(*moved);
    } else {
      self->_realtime->joined();
      self->_context->listeners.invoke(
          [](MeetingEventListener& listener) { listener.onMeetingJoined(std::nullopt); });
    }
    if (client->takeForgottenSwitch(connection))
      self->_context->onError(KestrovaError::SWITCH_MEETING_FAILED.withCause(
          "the connection was lost before the service decided"));
  });
}

void MeetingLifecycle::meetingMoved(const std::string& meetingId) {
  _context->setId(meetingId);
  _registry->forgetPins();
  _realtime->joined();
  _context->listeners.invoke(
      [&](MeetingEventListener& listener) { listener.onMeetingJoined(meetingId); });
}

// ---- Leaving -----------------------------------------------------------------------------------

std::optional<KestrovaError> MeetingLifecycle::refuseLeave() {
  const bool joined = _context->joined();
  std::scoped_lock held(_meetingStateLock);
  if (_meetingState == MeetingState::DISCONNECTED)
    return KestrovaError::ERROR_ALREADY_IN_REQUESTED_STATE.withMessage(
        "You have already left the meeting, so leave() is no longer available.");
  if (!joined)
    return KestrovaError::ERROR_ACTION_PERFORMED_BEFORE_MEETING_JOINED.withMessage(
        "You must join the meeting before calling the leave() method.");
  _meetingState = MeetingState::DISCONNECTED;
  _context->connections->beginEnd();
  return std::nullopt;
}

void MeetingLifecycle::leave() {
  auto goodbye = over->goodbye();
  if (const auto error = refuseLeave()) {
    _context->onError(*error);
    return;
  }
  over->decide(MeetingEnd::by(LeaveReason::manualLeaveCalled, true));
  _tearingDown = true;
  _realtime->forgetTopics();
  stopHeartbeat();
  // Behind what the application asked for a moment ago, which is still sent.
  const auto client = _context->roomClient();
  client->afterRequests([connections = _context->connections, client, goodbye] {
    connections->end();
    disconnectLater(client, LeaveReason::manualLeaveCalled, goodbye);
  });
}

void MeetingLifecycle::end() {
  _realtime->forgetTopics();
  stopHeartbeat();
  auto task = [](std::shared_ptr<RoomClient> client) -> Task<void> {
    co_await client->closeRoom(LeaveReason::roomClose);
  };
  spawn(task(_context->roomClient()));
}

void MeetingLifecycle::abandon() {
  auto goodbye = over->goodbye();
  // A step of the join that still waits for the service must begin nothing more; what was asked of
  // it before a leave that is under way is still sent.
  const bool isUnderWay = _tearingDown.exchange(true);
  _context->connections->beginEnd();
  if (!isUnderWay) _context->connections->end();
  _context->listeners.removeAll();
  _context->localParticipant->dismissListeners();
  _registry->dismissListeners();
  _characters->dismissListeners();
  _realtime->forgetTopics();
  over->releaseLoop();
  // Before the connection can report that it was closed.
  over->decide({.kind = MeetingEnd::Kind::letGo});
  // Where a goodbye is under way already, that one says why.
  if (auto client = isUnderWay ? nullptr : _context->existingRoomClient())
    disconnectLater(std::move(client),
                    _wasJoined ? LeaveReason::manualLeaveCalled : LeaveReason::unknown,
                    std::move(goodbye));
  over->heard();  // nobody is told any more
}

bool MeetingLifecycle::claimLeftEvents(LeaveReason reason) {
  bool first = false;
  {
    std::scoped_lock held(_meetingStateLock);
    first = !std::exchange(_didEmitMeetingLeft, true);
  }
  if (first) over->decide(MeetingEnd::by(reason, _wasJoined));
  _context->connections->end();
  return first;
}

void MeetingLifecycle::emitLeft(LeaveReason reason) {
  // Behind what the service said before, which takes as many steps to its listeners.
  MainQueue::shared().async([self = shared_from_this(), reason] {
    auto& listeners = self->_context->listeners;
    listeners.invoke([](MeetingEventListener& listener) { listener.onMeetingLeft(); });
    listeners.invoke([&](MeetingEventListener& listener) { listener.onMeetingLeft(reason); });
    self->releaseListeners();
    self->over->heard();
  });
}

/// On the main queue: the listeners have heard FAILED, and the meeting can't be joined any more.
void MeetingLifecycle::endFailed() {
  over->decide(
      {.kind = _wasJoined ? MeetingEnd::Kind::connectionLost : MeetingEnd::Kind::joinFailed});
  _context->connections->end();
  _media->releaseCustomStreams();
  _registry->clear();
  _characters->clear();
  if (const auto client = _context->existingRoomClient()) client->cleanUpTracing();
  releaseListeners();
  over->heard();
}

/// Those whose handles were detached.
void MeetingLifecycle::releaseListeners() {
  _context->listeners.releaseKept();
  _context->localParticipant->releaseKeptListeners();
}

void MeetingLifecycle::noteSocketError(const std::string& message) {
  // A service that refuses the connection explains it in a dictionary.
  const auto explained = parseDictionary(message);
  const auto* data = dictionary(explained, "data");
  auto cause = text(data ? *data : explained, "message");
  over->noteCause(_context->withoutToken(cause ? std::move(*cause) : message));
}

Task<void> MeetingLifecycle::closeMeetingRequested(LeaveReason leaveReason) {
  const auto self = shared_from_this();
  auto goodbye = over->goodbye();
  const bool first = claimLeftEvents(leaveReason);
  _tearingDown = true;
  _realtime->forgetTopics();
  const auto client = _context->roomClient();
  auto closing = client->disconnect(leaveReason, true, std::move(goodbye));
  co_await std::move(closing);
  _media->releaseCustomStreams();
  client->setJoined(false);
  client->cleanUpTracing();
  if (first)
    MainQueue::shared().async([self, leaveReason] {
      self->_registry->endStreams();
      self->_characters->endStreams();
      self->emitLeft(leaveReason);
    });
}

Task<void> MeetingLifecycle::disconnected(std::optional<LeaveReason> leaveReason) {
  const auto self = shared_from_this();
  const bool first = claimLeftEvents(leaveReason.value_or(LeaveReason::unknown));
  const auto client = _context->roomClient();
  // Nobody asked for these two, so nothing is taken down yet; camera and microphone must not run
  // on.
  if (first && (leaveReason == LeaveReason::websocketConnectionAttemptsExhausted ||
                leaveReason == LeaveReason::websocketDisconnected)) {
    stopHeartbeat();
    _tearingDown = true;
    co_await client->disconnect(*leaveReason, false);
  }
  MainQueue::shared().async([self, client, leaveReason, first] {
    self->_realtime->forgetTopics();
    self->_media->releaseCustomStreams();
    client->setJoined(false);
    self->_registry->clear();
    self->_characters->clear();
    client->cleanUpTracing();
    self->_context->setE2eeEnabled(false);
    if (first) self->emitLeft(leaveReason.value_or(LeaveReason::unknown));
  });
}

// ---- States of the connection ------------------------------------------------------------------

void MeetingLifecycle::meetingStateChanged(MeetingState state) {
  _meetingState = state;  // the caller holds the lock
  MainQueue::shared().async([weak = weak_from_this(), state] {
    const auto self = weak.lock();
    if (!self) return;
    self->emitState(state);
    self->_heartbeat.reset();
    if (state == MeetingState::RECONNECTING) {
      self->_realtime->resetForReconnect();
      self->startReconnectHeartbeat();
    }
    if (state == MeetingState::FAILED) self->endFailed();
  });
}

void MeetingLifecycle::startReconnectHeartbeat() {
  _heartbeat = ReconnectHeartbeat::begin([weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return false;
    const auto state = self->meetingState();
    self->emitState(state);
    return state == MeetingState::RECONNECTING;
  });
}

void MeetingLifecycle::emitState(MeetingState state) {
  _context->listeners.invoke(
      [&](MeetingEventListener& listener) { listener.onMeetingStateChanged(state); });
}

void MeetingLifecycle::stopHeartbeat() {
  auto& main = MainQueue::shared();
  if (main.isCurrent()) return _heartbeat.reset();
  main.async([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->_heartbeat.reset();
  });
}

}  // namespace kestrova
