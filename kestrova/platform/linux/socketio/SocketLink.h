#pragma once

#include <kestrova/platform/Scheduler.h>
#include <kestrova/platform/linux/socketio/EngineConnection.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace kestrova {

/// What a `SocketLink` tells its owner, on the link's strand. `session` is the number that the
/// owner gave to `start`.
class SocketLinkListener {
public:
  virtual ~SocketLinkListener() = default;
  virtual void linkUp(std::uint64_t session, std::shared_ptr<EngineConnection> connection) = 0;
  virtual void linkPacket(std::uint64_t session, SocketIOPacket packet) = 0;
  /// A packet could not be read and is left out. \param ack which acknowledgement it was
  virtual void linkSkipped(std::uint64_t session, const char* why,
                           std::optional<std::uint64_t> ack) = 0;
  /// The first connection could not be made, or the server refused us.
  virtual void linkError(std::uint64_t session, Value what) = 0;
  /// Lost, and attempts to come back follow. Once per loss.
  virtual void linkDown(std::uint64_t session, const std::string& reason) = 0;
  /// An attempt starts. `remaining` counts it and those after it; -1 when there is no limit.
  virtual void linkRetrying(std::uint64_t session, int remaining) = 0;
  /// The session is over.
  virtual void linkEnded(std::uint64_t session, const std::string& reason) = 0;
};

struct LinkOptions {
  WebSocketEndpoint endpoint;
  EngineOptions engine;
  bool reconnects = true;
  int reconnectAttempts = -1;
  std::chrono::milliseconds reconnectWait{0};
  std::chrono::milliseconds reconnectWaitMax{0};
  /// How long a connection has to last for the attempts before it to be forgotten.
  std::chrono::milliseconds lastingTime{0};
};

/// The wait before attempt number `attempt` (from 0): doubled every time, up to half as much again
/// by chance so that clients of one server do not come back all at once, and never above the
/// maximum. \param chance from 0 to 1
std::chrono::milliseconds reconnectDelay(const LinkOptions& options, int attempt, double chance);

/// Keeps a Socket.IO connection to one server: joins the namespace, and comes back after a loss.
///
/// Operations are for any thread and return at once. Sessions are numbered by the caller, rising;
/// what is asked for an older session than the last one known is ignored.
class SocketLink final : public EngineListener, public std::enable_shared_from_this<SocketLink> {
public:
  SocketLink(boost::asio::any_io_executor io, std::shared_ptr<Scheduler> scheduler,
             LinkOptions options);

  /// Before the first `start`.
  void setListener(std::weak_ptr<SocketLinkListener> listener) { _listener = std::move(listener); }
  void start(std::uint64_t session);
  /// Where the next connection goes; one that stands stays.
  void setTarget(std::string target);
  /// Takes leave of the server and closes, in the background, and holds `goodbye` until then.
  void stop(std::uint64_t session, std::shared_ptr<void> goodbye);

private:
  enum class Phase { idle, connecting, connected, waiting };

  void engineOpened() override;
  void engineText(std::string_view message) override;
  void engineBytes(std::span<const std::uint8_t> message) override;
  void engineClosed(const std::string& reason) override;

  void open();
  void release(std::shared_ptr<void> goodbye = {});
  void handle(SocketIOPacket& packet);
  void lost(const std::string& reason);
  void wait();
  void retry(std::uint64_t wait);
  void end(const std::string& reason);

  const WebSocketStrand _strand;
  const std::shared_ptr<Scheduler> _scheduler;
  LinkOptions _options;
  std::weak_ptr<SocketLinkListener> _listener;

  // On the strand.
  std::shared_ptr<EngineConnection> _connection;
  std::optional<SocketIODecoder> _decoder;
  std::unique_ptr<Timer> _timer;
  Phase _phase = Phase::idle;
  std::uint64_t _session = 0;
  std::uint64_t _wait = 0;
  int _attempts = 0;
  Scheduler::Clock::time_point _connectedAt;
  bool _down = false;
};

}  // namespace kestrova
