#pragma once

#include "ScriptedService.h"
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kestrova::test {

/// What became of an event that the service sent.
struct PushedEvent {
  bool acknowledged = false;
  SocketItems answer;

  /// The one value of the answer.
  Value value() const;
};

/// A socket whose network is the test. Handlers run on the client's own queue, as the real one's
/// do.
class ScriptedSocket final : public SocketIOClient,
                             public std::enable_shared_from_this<ScriptedSocket> {
public:
  ScriptedSocket(std::shared_ptr<ScriptedService> service, std::shared_ptr<ManualScheduler> clock,
                 std::shared_ptr<Queue> handleQueue);

  // ---- The network's side
  /// The connection stands and the server greets.
  void open();
  /// The connection is lost and will be retried.
  void drop();
  /// The connection is over for good.
  void fail(const std::string& reason = "transport close");
  void raise(SocketClientEvent event, SocketItems items = {});
  /// Sends a server event; what the client answers appears in the result.
  std::shared_ptr<PushedEvent> push(const std::string& event, Value item);
  /// A "notification" of `method`.
  std::shared_ptr<PushedEvent> notify(const std::string& method, Value data);
  /// A goodbye takes until `sayGoodbye` where this is set.
  bool holdGoodbye = false;
  void sayGoodbye() { _goodbye.reset(); }
  bool hasHandlers() const { return !_handlers.empty() || !_clientHandlers.empty(); }
  std::size_t handlerCount() const { return _handlers.size() + _clientHandlers.size(); }

  // ---- The client's side
  SocketIOStatus status() const override { return _status; }
  void connect() override { _status = SocketIOStatus::connecting; }
  void disconnect(std::shared_ptr<void> goodbye = {}) override;
  void emit(const std::string& event, SocketItems items) override;
  void emitWithAck(const std::string& event, SocketItems items, std::chrono::milliseconds timeout,
                   AckHandler ack) override;
  void on(const std::string& event, EventHandler handler) override;
  void on(SocketClientEvent event, ClientHandler handler) override;
  void onAny(AnyHandler handler) override { _anyHandlers.push_back(std::move(handler)); }
  void removeAllHandlers() override;

private:
  const std::shared_ptr<ScriptedService> _service;
  const std::shared_ptr<ManualScheduler> _clock;
  const std::shared_ptr<Queue> _handleQueue;
  std::shared_ptr<void> _goodbye;
  SocketIOStatus _status = SocketIOStatus::notConnected;
  std::multimap<std::string, EventHandler> _handlers;
  std::multimap<SocketClientEvent, ClientHandler> _clientHandlers;
  std::vector<AnyHandler> _anyHandlers;
};

class ScriptedSocketManager final : public SocketManager {
public:
  ScriptedSocketManager(std::shared_ptr<ScriptedSocket> socket,
                        std::weak_ptr<ScriptedService> service)
      : _socket(std::move(socket)), _service(std::move(service)) {}
  std::shared_ptr<SocketIOClient> defaultSocket() override { return _socket; }
  void setConnectParams(std::vector<std::pair<std::string, std::string>> params) override {
    if (const auto service = _service.lock()) service->setConnectParams(std::move(params));
  }
  void disconnect() override { _socket->disconnect(); }

private:
  const std::shared_ptr<ScriptedSocket> _socket;
  const std::weak_ptr<ScriptedService> _service;
};

}  // namespace kestrova::test
