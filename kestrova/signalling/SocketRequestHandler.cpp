#include <kestrova/model/Secrets.h>
#include <kestrova/platform/Await.h>
#include <kestrova/signalling/DeviceInfo.h>
#include <kestrova/signalling/SocketRequestHandler.h>
#include <kestrova/tracing/Trace.h>

#include <boost/algorithm/string/case_conv.hpp>

#include <algorithm>
#include <array>
#include <utility>

namespace kestrova {
namespace {

using AckEmitter = std::shared_ptr<SocketAckEmitter>;

const Value* firstValue(const SocketItems& items) {
  return items.empty() ? nullptr : std::get_if<Value>(&items.front());
}

/// An acknowledgement, or the marker of its time-out, as the dictionary that a caller judges.
Dictionary normalise(const SocketItems& items) {
  const auto* first = firstValue(items);
  if (!first) return {};
  if (first->is_object()) return first->get_object();
  if (first->is_string())
    return {{"ACK_STATUS", boost::algorithm::to_lower_copy(std::string(first->get_string()))}};
  return {};
}

void acknowledge(const AckEmitter& ack, Value item) {
  if (ack) ack->with({std::move(item)});
}

constexpr std::array carriers{"notification", "batchNotification", "newConsumer", "statsData"};

bool isDisconnectMarker(const SocketItems& items) {
  const auto* first = firstValue(items);
  return first && first->is_string() && first->get_string() == SocketIOClient::disconnectMarker;
}

/// What a request gives whose connection is over before it could be sent.
Dictionary gone() {
  return normalise({Value(SocketIOClient::disconnectMarker)});
}

}  // namespace

SocketRequestHandler::SocketRequestHandler(MeetingData meeting,
                                           std::shared_ptr<Connections> connections)
    : _connections(std::move(connections)),
      _platform(Platform::current()),
      _socketEmitQueue(SerialQueue::make("com.kestrova.socketEmitQueue")),
      _meeting(std::move(meeting)) {}

SocketRequestHandler::~SocketRequestHandler() = default;

void SocketRequestHandler::setDelegates(std::weak_ptr<RemoteEventDelegate> remoteEvents,
                                        std::weak_ptr<SocketEventDelegate> socketEvents,
                                        std::weak_ptr<MeetingStateDelegate> meetingState) {
  _remoteEventDelegate = std::move(remoteEvents);
  _socketEventDelegate = std::move(socketEvents);
  _meetingStateDelegate = std::move(meetingState);
}

// ---- Connection --------------------------------------------------------------------------------

SocketManagerConfig SocketRequestHandler::makeConfig(const std::string& socketPath) const {
  return {
      .log = false,
      .reconnects = true,
      .forceWebsockets = true,
      .forceNew = false,
      .path = socketPath,
      .connectParams = connectParams(),
      .handleQueue = _socketEmitQueue,
      .reconnectAttempts = 7,
      .reconnectWait = std::chrono::seconds(1),
      .reconnectWaitMax = std::chrono::seconds(5),
      .trace = [](const std::string& line) { traceDebug(line); },
  };
}

std::vector<std::pair<std::string, std::string>> SocketRequestHandler::connectParams() const {
  const auto now = meeting();
  return {{"roomId", now.id},
          {"peerId", now.localParticipantId},
          {"secret", now.accessToken},
          {"mode", now.mode},
          {"lib", "socket"}};
}

MeetingData SocketRequestHandler::meeting() const {
  std::scoped_lock held(_stateLock);
  return _meeting;
}

std::shared_ptr<SocketIOClient> SocketRequestHandler::socket() const {
  std::scoped_lock held(_stateLock);
  return _socket;
}

void SocketRequestHandler::moveTo(const std::string& meetingId,
                                  const std::optional<std::string>& token) {
  std::shared_ptr<SocketManager> manager;
  {
    std::scoped_lock held(_stateLock);
    _meeting.id = meetingId;
    if (token) _meeting.accessToken = *token;
    manager = _socketManager;
  }
  if (manager) manager->setConnectParams(connectParams());
}

bool SocketRequestHandler::connect(const std::string& url, const std::string& socketPath,
                                   SpanScope joinSpan) {
  if (const auto current = socket()) {
    const auto status = current->status();
    if (status == SocketIOStatus::connected || status == SocketIOStatus::connecting) return true;
  }
  auto manager = _platform->makeSocketManager(url, makeConfig(socketPath));
  if (!manager) {
    traceError([&] { return "Invalid socket URL: " + addressWithoutSecrets(url); });
    return false;
  }
  auto socket = manager->defaultSocket();
  {
    std::scoped_lock held(_stateLock);
    _socketManager.swap(manager);
    _socket = socket;
    _intentionalLeaveReason.reset();
    _wasReconnecting = false;
    _endReported = false;
  }
  reportState(MeetingState::CONNECTING);
  handleSocketEvents(socket, std::move(joinSpan));
  socket->connect();
  return true;
}

void SocketRequestHandler::disconnect(LeaveReason reason, std::shared_ptr<void> goodbye) {
  std::shared_ptr<SocketManager> manager;
  std::shared_ptr<SocketIOClient> socket;
  {
    std::scoped_lock held(_stateLock);
    _intentionalLeaveReason = reason;
    manager = _socketManager;
    socket = _socket;
  }
  _connections->lost();
  if (socket) {
    socket->disconnect(std::move(goodbye));
    socket->removeAllHandlers();
  }
  if (manager) manager->disconnect();
  // The handlers may have gone before the client could raise its event.
  if (socket)
    _socketEmitQueue->async([self = shared_from_this()] {
      if (self->isLeaveUnreported()) self->onDisconnect();
    });
}

bool SocketRequestHandler::isLeaveUnreported() const {
  std::scoped_lock held(_stateLock);
  return _intentionalLeaveReason.has_value() && !_endReported;
}

void SocketRequestHandler::reportState(MeetingState state, std::optional<Connection> connection) {
  if (auto delegate = _meetingStateDelegate.lock())
    delegate->meetingStateChanged(state, connection.value_or(_connections->current()));
}

// ---- Requests ----------------------------------------------------------------------------------

std::optional<Dictionary> SocketRequestHandler::makeRequestEnvelope(LocalEvent event,
                                                                    Dictionary data) const {
  Dictionary envelope{{"method", wireText(event)},
                      {"roomId", meeting().id},
                      {"request", true},
                      {"data", std::move(data)}};
  if (isJsonEncodable(envelope)) return envelope;
  traceError([&] {
    return "Dropping " + std::string(wireText(event)) +
           ": the request payload is not JSON-encodable. Values passed to the SDK — metaData, "
           "pubsub options and payload — must contain only String, Number, Bool, Array, "
           "Dictionary or NSNull.";
  });
  return std::nullopt;
}

Task<Dictionary> SocketRequestHandler::prepareAndSendRequest(LocalEvent event, Dictionary data,
                                                             std::optional<Connection> connection,
                                                             AnswerHandler onArrival) {
  auto envelope = makeRequestEnvelope(event, std::move(data));
  if (!envelope) {
    if (onArrival) onArrival(Dictionary());
    co_return Dictionary();
  }

  auto send = [weak = weak_from_this(), queue = _socketEmitQueue, envelope = std::move(*envelope),
               isJoin = event == LocalEvent::join,
               owner = connection.value_or(_connections->current()),
               onArrival = std::move(onArrival)](Completion<Dictionary> answer) mutable {
    auto deliver = [answer, onArrival = std::move(onArrival)](Dictionary response) {
      if (onArrival) onArrival(response);
      answer(std::move(response));
    };
    queue->async([weak = std::move(weak), envelope = std::move(envelope), owner = std::move(owner),
                  isJoin, deliver = std::move(deliver)]() mutable {
      const auto self = weak.lock();
      const auto socket = self ? self->socket() : nullptr;
      if (!socket) return deliver(Dictionary());
      if (!owner.isCurrent()) return deliver(gone());
      // A move may have come in between; the join of the meeting before it is none of this one.
      const auto meetingId = self->meetingId();
      if (isJoin && envelope["roomId"] != Value(meetingId)) return deliver(gone());
      envelope["roomId"] = meetingId;
      auto settle = [owner, connections = self->_connections, deliver](const SocketItems& items) {
        // Whoever waits for this answer may wake before the loss itself is told.
        if (isDisconnectMarker(items)) connections->lost(owner);
        deliver(normalise(items));
      };
      socket->emitWithAck("request", {Value(std::move(envelope))}, acknowledgementTimeout,
                          std::move(settle));
    });
  };
  co_return co_await awaitCallback<Dictionary>(std::move(send));
}

void SocketRequestHandler::definePeerLeftReason(const std::string& leaveReason) {
  const auto current = socket();
  if (!current || current->status() != SocketIOStatus::connected) {
    trace("Leave reason not reported: the socket is not connected.");
    return;
  }
  auto envelope =
      makeRequestEnvelope(LocalEvent::definePeerLeftReason, {{"leaveReason", leaveReason}});
  if (envelope) current->emit("request", {Value(std::move(*envelope))});
}

Task<Dictionary> SocketRequestHandler::closeRoom(std::optional<LeaveReason> leaveReason) {
  Dictionary data;
  // Only a manual leave is told to the service in words.
  if (leaveReason == LeaveReason::manualLeaveCalled) data["leaveReason"] = message(*leaveReason);
  return prepareAndSendRequest(LocalEvent::closeRoom, std::move(data));
}

Task<Dictionary> SocketRequestHandler::createWebRTCTransport(PreferredProtocol protocol,
                                                             bool producing, bool consuming,
                                                             Connection connection) {
  return prepareAndSendRequest(LocalEvent::createWebRtcTransport,
                               {{"preferredProtocol", wireText(protocol)},
                                {"producing", producing},
                                {"consuming", consuming}},
                               std::move(connection));
}

Task<Dictionary> SocketRequestHandler::connectWebRTCTransport(std::string transportId,
                                                              Dictionary dtlsParameters,
                                                              Connection connection) {
  return prepareAndSendRequest(
      LocalEvent::connectWebRtcTransport,
      {{"transportId", transportId}, {"dtlsParameters", std::move(dtlsParameters)}},
      std::move(connection));
}

Task<Dictionary> SocketRequestHandler::joinRoom(Dictionary rtpCapabilities, bool switchingRoom,
                                                Mode mode, bool batchingEnabled,
                                                Connection connection, AnswerHandler onArrival) {
  auto now = meeting();
  Dictionary metaData = now.metaData ? *now.metaData : Dictionary();
  metaData["enableAgentEvents"] = true;
  return prepareAndSendRequest(LocalEvent::join,
                               {{"displayName", now.localParticipantName},
                                {"device", "ios"},
                                {"secret", now.accessToken},
                                {"rtpCapabilities", std::move(rtpCapabilities)},
                                {"metaData", std::move(metaData)},
                                {"switchingRoom", switchingRoom},
                                {"mode", wireText(mode)},
                                {"deviceInfo", DeviceInfo::toStringify()},
                                {"batchingEnabled", batchingEnabled}},
                               std::move(connection), std::move(onArrival));
}

Task<Dictionary> SocketRequestHandler::changeMode(Mode mode, Connection connection) {
  return prepareAndSendRequest(LocalEvent::changeMode, {{"mode", wireText(mode)}},
                               std::move(connection));
}

Task<Dictionary> SocketRequestHandler::realtimeStoreSetValue(std::string key,
                                                             std::optional<std::string> value) {
  Dictionary data{{"key", std::move(key)},
                  {"value", value ? Value(std::move(*value)) : Value(nullptr)}};
  return prepareAndSendRequest(LocalEvent::realtimeStoreSet, std::move(data));
}

Task<Dictionary> SocketRequestHandler::respondEntry(std::string peerId, std::string decision) {
  return prepareAndSendRequest(LocalEvent::respondEntry, {{"id", peerId}, {"decision", decision}});
}

// ---- Events ------------------------------------------------------------------------------------

void SocketRequestHandler::handleSocketEvents(const std::shared_ptr<SocketIOClient>& socket,
                                              SpanScope joinSpan) {
  // Every handler holds this object weakly: a socket may outlive it by one event.
  auto weakly = [weak = weak_from_this()](auto method) {
    return [weak, method](const auto&... arguments) {
      if (auto self = weak.lock()) ((*self).*method)(arguments...);
    };
  };
  socket->on("connectionSuccess",
             [weak = weak_from_this(), joinSpan](const SocketItems&, const AckEmitter&) {
               if (auto self = weak.lock()) self->onConnectionSuccess(joinSpan);
             });
  socket->on(SocketClientEvent::disconnect, [weak = weak_from_this()](const SocketItems&) {
    if (auto self = weak.lock()) self->onDisconnect();
  });
  socket->on(SocketClientEvent::reconnect, [weak = weak_from_this()](const SocketItems&) {
    if (auto self = weak.lock()) self->onReconnect();
  });
  socket->on(SocketClientEvent::error, weakly(&SocketRequestHandler::onClientError));
  for (const char* event : {"newConsumer", "notification", "statsData"})
    socket->on(event, weakly(&SocketRequestHandler::handleServerEvent));
  socket->on("batchNotification", weakly(&SocketRequestHandler::onBatch));
  // A method carried under another event's name still reaches the dispatcher.
  socket->onAny([weak = weak_from_this()](const SocketAnyEvent& any) {
    if (std::find(carriers.begin(), carriers.end(), any.event) != carriers.end()) return;
    if (auto self = weak.lock()) self->handleServerEvent(any.items, nullptr);
  });
}

void SocketRequestHandler::onConnectionSuccess(const SpanScope& joinSpan) {
  {
    std::scoped_lock held(_stateLock);
    _wasReconnecting = false;
  }
  _connections->established();
  auto enter = [](std::weak_ptr<SocketRequestHandler> weak, SpanScope span,
                  Connection connection) -> Task<void> {
    auto self = weak.lock();
    auto delegate = self ? self->_socketEventDelegate.lock() : nullptr;
    if (!delegate || !connection.isCurrent()) co_return;
    auto entering = delegate->socketConnected(std::move(span), connection);
    if (co_await std::move(entering)) self->reportState(MeetingState::CONNECTED, connection);
  };
  MainQueue::shared().after(connectionSettleDelay, [weak = weak_from_this(), joinSpan,
                                                    connection = _connections->current(), enter] {
    spawnOn(MainQueue::shared(), enter(weak, joinSpan, connection));
  });
}

void SocketRequestHandler::onDisconnect() {
  _connections->lost();
  std::optional<LeaveReason> intended;
  bool wasReconnecting = false;
  {
    std::scoped_lock held(_stateLock);
    intended = std::exchange(_intentionalLeaveReason, std::nullopt);
    wasReconnecting = std::exchange(_wasReconnecting, false);
    _endReported = true;
  }
  auto reason =
      intended.value_or(wasReconnecting ? LeaveReason::websocketConnectionAttemptsExhausted
                                        : LeaveReason::websocketDisconnected);
  // The client raises one event for a plain drop and for a last failed attempt.
  if (reason == LeaveReason::websocketConnectionAttemptsExhausted)
    traceError("Socket reconnection failed - max attempts exhausted");

  auto report = [](std::weak_ptr<SocketEventDelegate> weak, LeaveReason why) -> Task<void> {
    if (auto delegate = weak.lock()) co_await delegate->socketDisconnected(why);
  };
  spawn(report(_socketEventDelegate, reason));
  reportState(MeetingState::DISCONNECTED);
}

void SocketRequestHandler::onReconnect() {
  _connections->lost();
  {
    std::scoped_lock held(_stateLock);
    _wasReconnecting = true;
  }
  reportState(MeetingState::RECONNECTING);
}

void SocketRequestHandler::onClientError(const SocketItems& items) {
  const auto* first = firstValue(items);
  auto delegate = _socketEventDelegate.lock();
  if (!first || !delegate) return;
  if (first->is_string())
    delegate->socketError(std::string(first->get_string()));
  else if (first->is_object())
    delegate->socketError(jsonText(*first).value_or(""));
}

void SocketRequestHandler::onBatch(const SocketItems& items, const AckEmitter& ack) {
  const auto* first = firstValue(items);
  const auto* notifications = first ? list(asDictionary(*first), "notifications") : nullptr;
  if (notifications) {
    for (const auto& notification : *notifications) {
      if (!notification.is_object()) continue;
      const auto method = text(notification.get_object(), "method", "");
      if (method == "newConsumer" || method == "statsData")
        trace([&] {
          return "Ack-requiring event '" + method +
                 "' arrived inside a batchNotification; its ack cannot be delivered.";
        });
      handleServerEvent({notification}, nullptr);
    }
  }
  acknowledge(ack, Dictionary());
}

void SocketRequestHandler::handleServerEvent(const SocketItems& items, const AckEmitter& ack) {
  const auto* first = firstValue(items);
  auto delegate = _remoteEventDelegate.lock();
  if (!first || !first->is_object() || !delegate) return;
  const auto& notification = first->get_object();
  const auto event = remoteEventFrom(text(notification, "method", ""));
  if (!event) return;

  switch (*event) {
    case RemoteEvent::newConsumer:
      try {
        delegate->handleNewConsumer(notification);
        acknowledge(ack, List{""});
      } catch (const std::exception& error) {
        // Left unanswered, so that the service sees its request time out.
        traceError([&] { return std::string("Error while creating consumer: ") + error.what(); });
      }
      break;
    case RemoteEvent::statsData:
      acknowledge(ack, delegate->getStatsData());
      break;
    default:
      acknowledge(ack, Dictionary());
      delegate->handleRemoteEvent(*event, notification);
  }
}

}  // namespace kestrova
