#include <kestrova/platform/Farewells.h>
#include <kestrova/platform/linux/socketio/SocketClient.h>

#include <atomic>
#include <utility>

namespace kestrova {
namespace {

class AckEmitter final : public SocketAckEmitter {
public:
  AckEmitter(std::weak_ptr<EngineConnection> connection, std::optional<std::uint64_t> id)
      : _connection(std::move(connection)), _id(id) {}

  bool expected() const override { return _id.has_value(); }

  void with(SocketItems items) override {
    if (!_id || _used.exchange(true)) return;
    const auto connection = _connection.lock();
    if (!connection) return;
    if (auto packet = encodeAck(*_id, std::move(items))) connection->send(std::move(*packet));
  }

private:
  const std::weak_ptr<EngineConnection> _connection;
  const std::optional<std::uint64_t> _id;
  std::atomic<bool> _used{false};
};

bool isActive(SocketIOStatus status) {
  return status == SocketIOStatus::connecting || status == SocketIOStatus::connected;
}

}  // namespace

SocketClient::SocketClient(std::shared_ptr<SocketLink> link, std::shared_ptr<Queue> queue,
                           std::shared_ptr<Scheduler> scheduler, Trace trace)
    : _link(std::move(link)),
      _queue(std::move(queue)),
      _acks(std::make_shared<SocketAcks>(_queue, std::move(scheduler))),
      _trace(std::move(trace)) {}

SocketIOStatus SocketClient::status() const {
  std::scoped_lock held(_lock);
  return _status;
}

void SocketClient::connect() {
  std::uint64_t session = 0;
  {
    std::scoped_lock held(_lock);
    if (_retired || isActive(_status)) return;
    _status = SocketIOStatus::connecting;
    session = ++_session;
  }
  _link->start(session);
}

void SocketClient::disconnect(std::shared_ptr<void> goodbye) {
  std::uint64_t session = 0;
  Target last;
  {
    std::scoped_lock held(_lock);
    if (!isActive(_status)) return;
    _status = SocketIOStatus::disconnected;
    session = ++_session;
    last = _target;
    _target.connection.reset();
  }
  _link->stop(session, std::move(goodbye));
  _acks->end(last.number);
  const char* reason = "the client disconnected";
  if (!_queue->isCurrent()) return raiseEnd(reason);
  // Before the caller goes on: it may remove its handlers next.
  auto self = shared_from_this();
  self->_handlers.raise(SocketClientEvent::disconnect, {SocketItem(Value(reason))});
}

void SocketClient::retire() {
  std::uint64_t session = 0;
  Target last;
  {
    std::scoped_lock held(_lock);
    _retired = true;
    if (isActive(_status)) _status = SocketIOStatus::disconnected;
    session = ++_session;
    last = _target;
    _target.connection.reset();
  }
  _link->stop(session, Farewells::begin());
  _handlers.removeUpTo(_handlers.mark());
  _acks->end(last.number);
}

// ---- Sending -----------------------------------------------------------------------------------

SocketClient::Target SocketClient::target() const {
  std::scoped_lock held(_lock);
  return _target;
}

void SocketClient::emit(const std::string& event, SocketItems items) {
  const auto to = target();
  if (to.connection) send(to, event, encodeEvent(event, std::move(items), std::nullopt));
}

void SocketClient::emitWithAck(const std::string& event, SocketItems items,
                               std::chrono::milliseconds timeout, AckHandler ack) {
  const auto to = target();
  const auto id = _acks->add(to.number, timeout, std::move(ack));
  if (to.connection && !send(to, event, encodeEvent(event, std::move(items), id)))
    _acks->resolve(id, {});
}

bool SocketClient::send(const Target& to, const std::string& event,
                        std::optional<EncodedPacket> packet) {
  std::string trouble;
  if (!packet)
    trouble = "an item cannot be written as JSON";
  else if (to.connection->send(std::move(*packet)) == EngineConnection::SendResult::tooLarge)
    trouble = "it is longer than the server accepts";
  else
    return true;  // a connection that is gone ends its acknowledgements itself
  std::uint64_t session = 0;
  {
    std::scoped_lock held(_lock);
    session = _session;
  }
  raise(session, SocketClientEvent::error,
        Value("the event \"" + event + "\" was not sent: " + trouble));
  return false;
}

// ---- Handlers ----------------------------------------------------------------------------------

void SocketClient::on(const std::string& event, EventHandler handler) {
  _handlers.add(event, std::move(handler));
}

void SocketClient::on(SocketClientEvent event, ClientHandler handler) {
  _handlers.add(event, std::move(handler));
}

void SocketClient::onAny(AnyHandler handler) {
  _handlers.addAny(std::move(handler));
}

void SocketClient::removeAllHandlers() {
  const auto mark = _handlers.mark();
  if (_queue->isCurrent()) return _handlers.removeUpTo(mark);
  _queue->async([weak = weak_from_this(), mark] {
    if (auto self = weak.lock()) self->_handlers.removeUpTo(mark);
  });
}

void SocketClient::raise(std::uint64_t session, SocketClientEvent event, Value item) {
  _queue->async([self = shared_from_this(), session, event, item = std::move(item)]() mutable {
    if (!self->isCurrent(session)) return;
    self->_handlers.raise(event, {SocketItem(std::move(item))});
  });
}

/// Whatever the application has begun since, it is told of the end.
void SocketClient::raiseEnd(const std::string& reason) {
  _queue->async([self = shared_from_this(), reason] {
    self->_handlers.raise(SocketClientEvent::disconnect, {SocketItem(Value(reason))});
  });
}

// ---- From the link -----------------------------------------------------------------------------

bool SocketClient::advance(std::uint64_t session, SocketIOStatus status,
                           std::shared_ptr<EngineConnection> connection) {
  std::uint64_t ended = 0;
  {
    std::scoped_lock held(_lock);
    if (session != _session) return false;
    _status = status;
    ended = _target.number;
    _target = {std::move(connection), ended};
    if (_target.connection) ++_target.number;
  }
  _acks->end(ended);
  return true;
}

bool SocketClient::isCurrent(std::uint64_t session) const {
  std::scoped_lock held(_lock);
  return session == _session;
}

void SocketClient::linkUp(std::uint64_t session, std::shared_ptr<EngineConnection> connection) {
  if (advance(session, SocketIOStatus::connected, std::move(connection)))
    raise(session, SocketClientEvent::connect, Value("/"));
}

void SocketClient::linkPacket(std::uint64_t session, SocketIOPacket packet) {
  if (packet.type == SocketIOType::ack) return _acks->resolve(*packet.id, std::move(packet.items));
  auto ack = std::make_shared<AckEmitter>(target().connection, packet.id);
  _queue->async([self = shared_from_this(), session, ack = std::move(ack),
                 event = SocketAnyEvent{std::move(packet.event), std::move(packet.items)}] {
    if (self->isCurrent(session)) self->_handlers.raise(event, ack);
  });
}

void SocketClient::linkSkipped(std::uint64_t session, const char* why,
                               std::optional<std::uint64_t> ack) {
  if (_trace)
    _queue->async([self = shared_from_this(), session, why] {
      if (self->isCurrent(session))
        self->_trace(std::string("Socket packet left out: ").append(why));
    });
  if (ack) _acks->resolve(*ack, {});
}

void SocketClient::linkError(std::uint64_t session, Value what) {
  raise(session, SocketClientEvent::error, std::move(what));
}

void SocketClient::linkDown(std::uint64_t session, const std::string& reason) {
  if (advance(session, SocketIOStatus::connecting))
    raise(session, SocketClientEvent::reconnect, Value(reason));
}

void SocketClient::linkRetrying(std::uint64_t session, int remaining) {
  raise(session, SocketClientEvent::reconnectAttempt, Value(remaining));
}

void SocketClient::linkEnded(std::uint64_t session, const std::string& reason) {
  if (advance(session, SocketIOStatus::disconnected)) raiseEnd(reason);
}

}  // namespace kestrova
