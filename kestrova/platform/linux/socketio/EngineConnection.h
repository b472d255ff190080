#pragma once

#include <kestrova/platform/linux/socketio/Endpoint.h>
#include <kestrova/platform/linux/socketio/EngineIO.h>
#include <kestrova/platform/linux/socketio/SocketIOPacket.h>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/strand.hpp>

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace boost::asio::ssl {
class context;
}

namespace kestrova {

struct EngineLimits {
  /// From the first step until the namespace is joined.
  std::chrono::milliseconds connectTimeout{20'000};
  /// How long a connection that is being closed may take to send what was queued.
  std::chrono::milliseconds closeTimeout{2'000};
  PingBounds pings;
  /// Longest message taken from the server, and all attachments of one packet together.
  std::size_t maxIncomingBytes = SocketManagerConfig::usualMaxMessageBytes;
};

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

/// One Engine.IO 4 connection over one WebSocket: made once, lost or closed once.
///
/// Operations are for the strand, `send` is for any thread. Releasing it does not close it; its
/// pending network operations keep it alive until it is lost or closed.
class EngineConnection : public std::enable_shared_from_this<EngineConnection> {
public:
  using Strand = boost::asio::strand<boost::asio::any_io_executor>;
  enum class SendResult { queued, closed, tooLarge };

  /// \param tls needed for a secure endpoint only
  EngineConnection(const Strand& strand, Endpoint endpoint,
                   std::shared_ptr<boost::asio::ssl::context> tls, EngineLimits limits,
                   std::weak_ptr<EngineListener> listener);
  ~EngineConnection();

  void start();
  /// Ends the watch over the connect time-out: the server has let us in.
  void admitted();
  /// Queues a packet behind those before it. `tooLarge` is more than the server accepts.
  SendResult send(EncodedPacket packet);
  /// Sends what is queued and then `last`, closes, and gives up after the close time-out. The
  /// listener hears nothing more.
  void close(EncodedPacket last);
  /// Closes at once. The listener hears nothing more.
  void abort();

private:
  enum class Phase { opening, open, closing, closed };
  struct Frame {
    bool binary = false;
    std::string text;
    SocketBytes bytes;
  };
  struct Transport;

  void resolved();
  void connected();
  void encrypted();
  void upgraded();
  void read();
  void readDone(std::size_t size);
  void handleText(std::string_view frame);
  void handleOpen(std::string_view payload);
  void queue(Frame frame);
  void schedule();
  void flush();
  void transmit();
  void transmitted();
  void leave();
  void answered();
  void goodbye();
  void watch(std::chrono::milliseconds time);
  void watchEnded();
  /// The step's error, if there is one, ends the connection; false then.
  bool passed(const boost::system::error_code& error, const char* step);
  void fail(const std::string& reason);
  void shut();

  Strand _strand;
  const Endpoint _endpoint;
  const EngineLimits _limits;

  // On the strand.
  std::weak_ptr<EngineListener> _listener;
  std::unique_ptr<Transport> _transport;
  Phase _phase = Phase::opening;
  bool _admitted = false;
  EngineIOHandshake _handshake;
  std::chrono::steady_clock::time_point _lastHeard;
  bool _sending = false;
  std::string _farewell;
  bool _asked = false;
  bool _closeSent = false;

  std::mutex _lock;  // guards the fields below
  std::vector<Frame> _outbox;
  bool _accepting = false;
  bool _flushing = false;
  std::size_t _maxPayload = 0;
};

}  // namespace kestrova
