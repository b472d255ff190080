#pragma once

#include <kestrova/platform/Scheduler.h>
#include <kestrova/platform/linux/websocket/ByteStream.h>
#include <kestrova/platform/linux/websocket/TlsTrust.h>
#include <kestrova/platform/linux/websocket/WebSocketEndpoint.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kestrova {

class WebSocketStream;

struct WebSocketLimits {
  /// Messages of signalling and of topics are kilobytes; more is a mistake or an attack.
  static constexpr std::size_t usualIncomingBytes = 4 * 1024 * 1024;
  /// Half a minute of a slow uplink: who has sent more will not be heard in time.
  static constexpr std::size_t usualWaitingBytes = 16 * 1024 * 1024;

  /// From the look-up of the name until the server has agreed to speak WebSocket.
  std::chrono::milliseconds connectTimeout{20'000};
  /// How long a connection that is being closed may take to send what was queued.
  std::chrono::milliseconds closeTimeout{2'000};
  /// How long the network may take nothing of what is to be sent.
  std::chrono::milliseconds stallTimeout{10'000};
  /// A longer message ends the connection: the server is told "message too big".
  std::size_t maxIncomingBytes = usualIncomingBytes;
  /// When more than this waits to be sent the connection ends.
  std::size_t maxWaitingBytes = usualWaitingBytes;
};

struct WebSocketOptions {
  WebSocketLimits limits;
  /// Sent with the request, beside those of the protocol.
  std::vector<std::pair<std::string, std::string>> headers;
  /// For a secure endpoint; one is made when there is none.
  std::shared_ptr<TlsTrust> trust;
  std::shared_ptr<Scheduler> scheduler;
};

/// What a `WebSocket` tells its owner, on the strand.
class WebSocketListener {
public:
  virtual ~WebSocketListener() = default;
  /// From now on messages can be sent.
  virtual void webSocketOpened() = 0;
  virtual void webSocketText(std::string_view message) = 0;
  virtual void webSocketBytes(std::span<const std::uint8_t> message) = 0;
  /// The connection could not be made or was lost. The last call there is.
  /// \param code what the server gave as it closed, 1005 where it gave none; nothing when the
  /// connection just went
  virtual void webSocketClosed(const std::string& reason, std::optional<std::uint16_t> code) = 0;
};

/// One connection of a WebSocket client (RFC 6455): opened once, lost or closed once. Certificates
/// are always verified.
///
/// Operations are for the strand, `send` is for any thread. Its pending network operations keep it
/// alive until it is lost or closed; it closes when its listener has gone.
class WebSocket : public std::enable_shared_from_this<WebSocket> {
public:
  using Bytes = std::vector<std::uint8_t>;
  enum class SendResult {
    queued,
    closed,  ///< not open yet, or no longer
    full     ///< too much is waiting; the connection is being given up
  };
  static constexpr std::uint16_t normalClosure = 1000;
  static constexpr std::uint16_t goingAway = 1001;

  WebSocket(const WebSocketStrand& strand, WebSocketEndpoint endpoint, WebSocketOptions options,
            std::weak_ptr<WebSocketListener> listener);
  ~WebSocket();

  void open();
  /// Reads no further than the message that is being told, so that the server has to wait: nothing
  /// of it is heard, pings and the loss of the connection included, until `resumeReading`. A close
  /// resumes by itself.
  void pauseReading() { _paused = true; }
  void resumeReading();
  /// Queues a text message, and binary ones that follow it without another in between.
  SendResult send(std::string text, std::vector<Bytes> attachments = {});
  /// Queues a binary message.
  SendResult send(Bytes bytes);
  /// Sends what is queued, waits until the server has read it, sends `farewell`, closes, and gives
  /// up after the close time-out. With no farewell it does not wait for the server's reading. The
  /// listener hears nothing more.
  /// \param goodbye held until the connection is closed
  void close(std::uint16_t code, std::string farewell = {}, std::shared_ptr<void> goodbye = {});
  /// Closes at once. The listener hears nothing more.
  void abort();

private:
  enum class Phase { opening, open, closing, closed };
  struct Message {
    bool binary = false;
    std::string text;
    Bytes bytes;
  };

  void connected();
  void read();
  void readDone();
  SendResult enqueue(std::string* text, std::span<Bytes> bytes);
  void queueFarewell();
  void flush();
  void woken();
  void transmit();
  void transmitted();
  void leave();
  void goodbye();
  [[nodiscard]] std::unique_ptr<Timer> later(std::chrono::milliseconds delay,
                                             void (WebSocket::*step)());
  void openingEnded();
  void closingEnded();
  void checkProgress();
  /// The step's error, if there is one, ends the connection; false then.
  bool passed(const boost::system::error_code& error, const char* step);
  void fail(const std::string& reason, std::optional<std::uint16_t> code = std::nullopt);
  void failLater(const char* reason);
  void shut(bool reset = false);

  const WebSocketStrand _strand;
  const WebSocketEndpoint _endpoint;
  const WebSocketOptions _options;

  // On the strand.
  std::weak_ptr<WebSocketListener> _listener;
  std::unique_ptr<WebSocketStream> _stream;
  Phase _phase = Phase::opening;
  bool _paused = false;
  bool _reading = false;
  std::string _sending;
  bool _isSending = false;
  std::vector<Message> _taken;
  std::size_t _takenBytes = 0;
  Scheduler::Clock::time_point _progress;
  std::unique_ptr<Timer> _watch;
  std::unique_ptr<Timer> _progressWatch;
  std::uint16_t _closeCode = 0;
  std::string _farewell;
  std::shared_ptr<void> _goodbye;
  bool _asked = false;
  bool _closeSent = false;

  std::mutex _lock;  // guards the fields below
  std::vector<Message> _outbox;
  std::size_t _waitingBytes = 0;
  bool _accepting = false;
  bool _flushing = false;
};

}  // namespace kestrova
