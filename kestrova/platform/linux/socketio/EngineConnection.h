#pragma once

#include <kestrova/platform/Scheduler.h>
#include <kestrova/platform/linux/socketio/EngineIO.h>
#include <kestrova/platform/linux/socketio/SocketIOPacket.h>
#include <kestrova/platform/linux/websocket/WebSocket.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace kestrova {

/// What an `EngineConnection` tells its owner, on the connection's strand.
class EngineListener {
public:
  virtual ~EngineListener() = default;
  /// The server's handshake has come: messages can be sent.
  virtual void engineOpened() = 0;
  virtual void engineText(std::string_view message) = 0;
  virtual void engineBytes(std::span<const std::uint8_t> message) = 0;
  /// The connection could not be made or was lost. The last call there is.
  virtual void engineClosed(const std::string& reason) = 0;
};

struct EngineOptions {
  /// The connect time-out reaches until the namespace is joined.
  WebSocketOptions socket;
  PingBounds pings;
};

/// One Engine.IO 4 connection over one WebSocket: made once, lost or closed once.
///
/// Operations are for the strand, `send` is for any thread.
class EngineConnection final : public WebSocketListener,
                               public std::enable_shared_from_this<EngineConnection> {
public:
  enum class SendResult { queued, closed, tooLarge };

  EngineConnection(const WebSocketStrand& strand, EngineOptions options,
                   std::weak_ptr<EngineListener> listener);

  void start(WebSocketEndpoint endpoint);
  /// Ends the watch over the connect time-out: the server has let us in.
  void admitted();
  /// Queues a packet behind those before it. `tooLarge` is more than the server accepts; more than
  /// may wait is `closed`, and loses the connection.
  SendResult send(EncodedPacket packet);
  /// Sends what is queued and then `last`, closes, and gives up after the close time-out. The
  /// listener hears nothing more.
  void close(EncodedPacket last, std::shared_ptr<void> goodbye = {});

private:
  enum class Phase { opening, open, closed };

  void webSocketOpened() override {}
  void webSocketText(std::string_view frame) override;
  void webSocketBytes(std::span<const std::uint8_t> message) override;
  void webSocketClosed(const std::string& reason, std::optional<std::uint16_t> code) override;

  void handleOpen(std::string_view payload);
  void watch(std::chrono::milliseconds time);
  void watchEnded();
  void fail(const std::string& reason);

  const WebSocketStrand _strand;
  const EngineOptions _options;
  std::shared_ptr<WebSocket> _socket;  ///< set once, by `start`

  // On the strand.
  std::weak_ptr<EngineListener> _listener;
  Phase _phase = Phase::opening;
  bool _admitted = false;
  EngineIOHandshake _handshake;
  Scheduler::Clock::time_point _lastHeard;
  std::unique_ptr<Timer> _watch;

  std::atomic<std::size_t> _maxPayload{0};
};

}  // namespace kestrova
