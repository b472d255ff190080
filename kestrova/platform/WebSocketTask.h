#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace kestrova {

/// One WebSocket connection of a client, from its request to its end. TLS is always verified;
/// `SSL_CERT_FILE` names further authorities. Made by `Platform::makeWebSocketTask`.
///
/// Operations are for the queue with which the task was made. All it tells comes on that queue, one
/// piece at a time, and never from within an operation; after `cancel`, or when the last reference
/// has gone, it tells nothing more.
class WebSocketTask {
public:
  static constexpr std::uint16_t goingAway = 1001;
  /// A longer incoming message ends the connection.
  static constexpr std::size_t mostIncomingBytes = 16 * 1024 * 1024;

  struct Message {
    enum class Kind { data, text };
    Kind kind = Kind::data;
    /// A text as its UTF-8.
    std::vector<std::uint8_t> bytes;
  };
  /// What went wrong, without the URL's secrets.
  using Error = std::string;
  using ReceiveHandler = std::function<void(std::variant<Message, Error>)>;
  using SendHandler = std::function<void(const std::optional<Error>&)>;

  struct Events {
    /// Messages can be sent.
    std::function<void()> didOpen;
    /// The server has closed the connection with this code; 1005 where it gave none. `didComplete`
    /// follows.
    std::function<void(std::uint16_t closeCode)> didClose;
    /// The end, in every case: with no error after a close, with one when the connection could not
    /// be made or was lost. Messages that came before it are received before it is told.
    std::function<void(const std::optional<Error>&)> didComplete;
  };

  virtual ~WebSocketTask() = default;
  /// Starts connecting.
  virtual void resume() = 0;
  /// Asks for the next message; one request at a time. It may be made before the connection is
  /// open, and fails when the connection ends. While nobody asks, little is read ahead: what the
  /// server goes on sending waits with it.
  virtual void receive(ReceiveHandler handler) = 0;
  /// Sends a binary message. `completion`, which may be empty, is called when the message is on its
  /// way, or with an error when the connection isn't open.
  virtual void send(std::vector<std::uint8_t> data, SendHandler completion) = 0;
  /// Ends the connection: what was sent before still goes out, and the server is told `closeCode`,
  /// or `goingAway` in place of a code that may not be sent. The last reference's end does the
  /// same.
  virtual void cancel(std::uint16_t closeCode) = 0;
};

}  // namespace kestrova
