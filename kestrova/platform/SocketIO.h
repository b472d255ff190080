#pragma once

#include <kestrova/platform/Queue.h>
#include <kestrova/platform/Values.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace kestrova {

/// One argument of a Socket.IO event: JSON, or bytes that travel as a binary attachment.
using SocketBytes = std::vector<std::uint8_t>;
using SocketItem = std::variant<Value, SocketBytes>;
using SocketItems = std::vector<SocketItem>;

enum class SocketIOStatus { notConnected, disconnected, connecting, connected };

/// Events that the client itself raises. Items that come with them:
/// - connect: the namespace; disconnect: the reason as text
/// - reconnect: the reason as text (a drop that will be retried, raised once per drop)
/// - reconnectAttempt: the number of attempts that remain
/// - error: a text, a dictionary (a refused connection), or an `{"message": text}`-like dictionary
/// A packet that cannot be read is none of these: it is left out, and `SocketManagerConfig::trace`
/// is told.
enum class SocketClientEvent { connect, disconnect, reconnect, reconnectAttempt, error };

/// Answers one server event that asked for an acknowledgement. Safe from any thread; a second call
/// and a call after the drop do nothing.
class SocketAckEmitter {
public:
  virtual ~SocketAckEmitter() = default;
  /// Whether the server asked for an answer at all.
  virtual bool expected() const = 0;
  virtual void with(SocketItems items) = 0;
};

struct SocketAnyEvent {
  std::string event;
  SocketItems items;
};

/// A Socket.IO 5 client on the default namespace.
///
/// Operations may be called from any thread and return at once. Handlers and acknowledgements run
/// on the manager's `handleQueue`, one at a time, in the order in which frames arrived.
class SocketIOClient {
public:
  using EventHandler = std::function<void(const SocketItems&, std::shared_ptr<SocketAckEmitter>)>;
  using ClientHandler = std::function<void(const SocketItems&)>;
  using AnyHandler = std::function<void(const SocketAnyEvent&)>;
  /// Called exactly once: with the server's items, or with the single text `timeoutMarker` or
  /// `disconnectMarker`. No items stand for an answer that cannot be read, and for an event that
  /// cannot be written or is longer than the server accepts.
  using AckHandler = std::function<void(const SocketItems&)>;

  /// What an acknowledgement holds when the time-out came first.
  static constexpr const char* timeoutMarker = "NO ACK";
  /// What it holds when the connection that carried the event is gone, or when there was none.
  static constexpr const char* disconnectMarker = "DISCONNECTED";

  virtual ~SocketIOClient() = default;
  virtual SocketIOStatus status() const = 0;
  virtual void connect() = 0;
  /// What is still unanswered ends with `disconnectMarker`.
  /// \param goodbye held until the server has been told, or that was given up
  virtual void disconnect(std::shared_ptr<void> goodbye = {}) = 0;
  /// Dropped silently while the socket is not connected.
  virtual void emit(const std::string& event, SocketItems items) = 0;
  /// An answer belongs to the connection that carried its question. When that one is lost, `ack`
  /// gets `disconnectMarker` before the client event that tells of the loss is raised. While the
  /// socket is not connected the event is dropped and `ack` gets the marker as the queue's next
  /// work, so asking again from inside `ack` has to wait for the connection. `ack` is never called
  /// from within this call.
  virtual void emitWithAck(const std::string& event, SocketItems items,
                           std::chrono::milliseconds timeout, AckHandler ack) = 0;
  virtual void on(const std::string& event, EventHandler handler) = 0;
  virtual void on(SocketClientEvent event, ClientHandler handler) = 0;
  /// Every server event, also those that have handlers of their own.
  virtual void onAny(AnyHandler handler) = 0;
  /// Events already under way may still find no handler afterwards; none is called after this
  /// returns from `handleQueue`.
  virtual void removeAllHandlers() = 0;
};

struct SocketManagerConfig {
  bool log = false;
  bool reconnects = true;
  bool forceWebsockets = true;
  bool forceNew = false;
  /// Path of the Engine.IO endpoint, for example "/socket.io" or "/abc/socket.io".
  std::string path = "/socket.io";
  /// Sent in the query of the WebSocket request; values are percent-encoded by the client.
  std::vector<std::pair<std::string, std::string>> connectParams;
  std::shared_ptr<Queue> handleQueue;
  /// -1 means no limit.
  int reconnectAttempts = -1;
  std::chrono::milliseconds reconnectWait{10'000};
  std::chrono::milliseconds reconnectWaitMax{30'000};
  /// Signalling messages are kilobytes; more than this is a mistake or an attack.
  static constexpr std::size_t usualMaxMessageBytes = 4 * 1024 * 1024;
  /// A longer message from the server ends the connection. A packet whose attachments are longer
  /// together is left out.
  std::size_t maxMessageBytes = usualMaxMessageBytes;
  /// Told in a line what the connection goes on without: a packet that cannot be read. Nothing of
  /// its content is in the line. Runs on `handleQueue`.
  std::function<void(const std::string&)> trace;
};

/// Owns the connection and its reconnection. Releasing the last reference closes the socket without
/// waiting for the network and raises no further event.
class SocketManager {
public:
  virtual ~SocketManager() = default;
  virtual std::shared_ptr<SocketIOClient> defaultSocket() = 0;
  /// Replaces the configuration's: the next connection is made with these.
  virtual void setConnectParams(std::vector<std::pair<std::string, std::string>> params) = 0;
  /// Closes the connection and ends reconnection.
  virtual void disconnect() = 0;
};

}  // namespace kestrova
