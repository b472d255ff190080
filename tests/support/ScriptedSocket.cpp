#include "ScriptedSocket.h"

#include <utility>

namespace kestrova::test {
namespace {

/// Keeps what the client answers.
class RecordingEmitter final : public SocketAckEmitter {
public:
  explicit RecordingEmitter(std::shared_ptr<PushedEvent> event) : _event(std::move(event)) {}
  bool expected() const override { return true; }
  void with(SocketItems items) override {
    if (std::exchange(_event->acknowledged, true)) return;
    _event->answer = std::move(items);
  }

private:
  const std::shared_ptr<PushedEvent> _event;
};

Dictionary envelopeOf(const SocketItems& items) {
  const auto* value = items.empty() ? nullptr : std::get_if<Value>(&items.front());
  return value && value->is_object() ? value->get_object() : Dictionary();
}

}  // namespace

Value PushedEvent::value() const {
  return answer.size() == 1 ? std::get<Value>(answer.front()) : Value("not one item");
}

ScriptedSocket::ScriptedSocket(std::shared_ptr<ScriptedService> service,
                               std::shared_ptr<ManualScheduler> clock,
                               std::shared_ptr<Queue> handleQueue)
    : _service(std::move(service)),
      _clock(std::move(clock)),
      _handleQueue(std::move(handleQueue)) {}

// ---- The network's side ------------------------------------------------------------------------

void ScriptedSocket::open() {
  _status = SocketIOStatus::connected;
  raise(SocketClientEvent::connect, {Value("/")});
  push("connectionSuccess", nullptr);
}

void ScriptedSocket::drop() {
  _status = SocketIOStatus::connecting;
  _service->loseConnection();
  raise(SocketClientEvent::reconnect, {Value("transport close")});
}

void ScriptedSocket::fail(const std::string& reason) {
  _status = SocketIOStatus::disconnected;
  _service->loseConnection();
  raise(SocketClientEvent::disconnect, {Value(reason)});
}

void ScriptedSocket::raise(SocketClientEvent event, SocketItems items) {
  _handleQueue->async([weak = weak_from_this(), event, items = std::move(items)] {
    const auto self = weak.lock();
    if (!self) return;
    const auto handlers = self->_clientHandlers;
    const auto [first, last] = handlers.equal_range(event);
    for (auto it = first; it != last; ++it) it->second(items);
  });
}

std::shared_ptr<PushedEvent> ScriptedSocket::push(const std::string& event, Value item) {
  auto pushed = std::make_shared<PushedEvent>();
  auto emitter = std::make_shared<RecordingEmitter>(pushed);
  _handleQueue->async([weak = weak_from_this(), event, item = std::move(item), emitter] {
    const auto self = weak.lock();
    if (!self) return;
    const SocketItems items{item};
    const auto anyHandlers = self->_anyHandlers;
    for (const auto& handler : anyHandlers) handler({event, items});
    const auto handlers = self->_handlers;
    const auto [first, last] = handlers.equal_range(event);
    for (auto it = first; it != last; ++it) it->second(items, emitter);
  });
  return pushed;
}

std::shared_ptr<PushedEvent> ScriptedSocket::notify(const std::string& method, Value data) {
  return push("notification", Dictionary{{"method", method}, {"data", std::move(data)}});
}

// ---- The client's side -------------------------------------------------------------------------

void ScriptedSocket::disconnect(std::shared_ptr<void> goodbye) {
  if (holdGoodbye && goodbye) _goodbye = std::move(goodbye);
  const bool wasOpen =
      _status == SocketIOStatus::connected || _status == SocketIOStatus::connecting;
  _status = SocketIOStatus::disconnected;
  _service->loseConnection();
  if (wasOpen) raise(SocketClientEvent::disconnect, {Value("io client disconnect")});
}

void ScriptedSocket::emit(const std::string& event, SocketItems items) {
  if (_status == SocketIOStatus::connected) _service->receive({event, envelopeOf(items)}, {});
}

void ScriptedSocket::emitWithAck(const std::string& event, SocketItems items,
                                 std::chrono::milliseconds timeout, AckHandler ack) {
  auto handler = std::make_shared<AckHandler>(std::move(ack));
  auto settle = [queue = _handleQueue, handler](SocketItems answer) {
    queue->async([handler, answer = std::move(answer)] {
      if (const auto once = std::exchange(*handler, nullptr)) once(answer);
    });
  };
  if (_status != SocketIOStatus::connected) return settle({Value(disconnectMarker)});
  _clock->detachedAfter(timeout, [settle] { settle({Value(timeoutMarker)}); });
  _service->receive({event, envelopeOf(items), true}, std::move(settle));
}

void ScriptedSocket::on(const std::string& event, EventHandler handler) {
  _handlers.emplace(event, std::move(handler));
}

void ScriptedSocket::on(SocketClientEvent event, ClientHandler handler) {
  _clientHandlers.emplace(event, std::move(handler));
}

void ScriptedSocket::removeAllHandlers() {
  _handlers.clear();
  _clientHandlers.clear();
  _anyHandlers.clear();
}

}  // namespace kestrova::test
