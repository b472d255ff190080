#pragma once

#include <kestrova/platform/linux/socketio/SocketAcks.h>
#include <kestrova/platform/linux/socketio/SocketHandlers.h>
#include <kestrova/platform/linux/socketio/SocketLink.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace kestrova {

/// The default namespace's client: its status, its handlers and its acknowledgements.
///
/// `connect` begins a session and `disconnect` ends it, both at once as far as `status` tells; what
/// the link still reports of an ended session is dropped.
class SocketClient final : public SocketIOClient,
                           public SocketLinkListener,
                           public std::enable_shared_from_this<SocketClient> {
public:
  using Trace = std::function<void(const std::string&)>;

  SocketClient(std::shared_ptr<SocketLink> link, std::shared_ptr<Queue> queue,
               std::shared_ptr<Scheduler> scheduler, Trace trace);

  SocketIOStatus status() const override;
  void connect() override;
  /// Called on the handlers' queue it raises `disconnect` before it returns.
  void disconnect(std::shared_ptr<void> goodbye = {}) override;
  void emit(const std::string& event, SocketItems items) override;
  void emitWithAck(const std::string& event, SocketItems items, std::chrono::milliseconds timeout,
                   AckHandler ack) override;
  void on(const std::string& event, EventHandler handler) override;
  void on(SocketClientEvent event, ClientHandler handler) override;
  void onAny(AnyHandler handler) override;
  /// Called on another thread than the handlers' it takes effect after the events under way.
  void removeAllHandlers() override;

  /// Closes for good and raises no further event. Pending acknowledgements get their marker.
  void retire();

private:
  void linkUp(std::uint64_t session, std::shared_ptr<EngineConnection> connection) override;
  void linkPacket(std::uint64_t session, SocketIOPacket packet) override;
  void linkSkipped(std::uint64_t session, const char* why,
                   std::optional<std::uint64_t> ack) override;
  void linkError(std::uint64_t session, Value what) override;
  void linkDown(std::uint64_t session, const std::string& reason) override;
  void linkRetrying(std::uint64_t session, int remaining) override;
  void linkEnded(std::uint64_t session, const std::string& reason) override;

  /// Where events go, and the number that their acknowledgements bear. Without a connection it is
  /// the number of the last one, which has ended.
  struct Target {
    std::shared_ptr<EngineConnection> connection;
    std::uint64_t number = 0;
  };

  Target target() const;
  /// Sets the status, unless the session is over; tells whether it was. Without a connection the
  /// acknowledgements of the one before end.
  bool advance(std::uint64_t session, SocketIOStatus status,
               std::shared_ptr<EngineConnection> connection = nullptr);
  bool isCurrent(std::uint64_t session) const;
  void raise(std::uint64_t session, SocketClientEvent event, Value item);
  void raiseEnd(const std::string& reason);
  /// False when the event has not been sent although there is a connection; an error is raised.
  bool send(const Target& target, const std::string& event, std::optional<EncodedPacket> packet);

  const std::shared_ptr<SocketLink> _link;
  const std::shared_ptr<Queue> _queue;
  const std::shared_ptr<SocketAcks> _acks;
  const Trace _trace;
  SocketHandlers _handlers;

  mutable std::mutex _lock;  // guards the fields below
  SocketIOStatus _status = SocketIOStatus::notConnected;
  std::uint64_t _session = 0;
  Target _target;
  bool _retired = false;
};

}  // namespace kestrova
