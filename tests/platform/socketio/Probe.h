#pragma once

#include <kestrova/platform/Queue.h>
#include <kestrova/platform/SocketIO.h>
#include <kestrova/platform/linux/socketio/SocketManager.h>

#include "Log.h"
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrova::test {

/// A manager whose client writes down every event it raises: "connect /", "disconnect <reason>",
/// "reconnect <reason>", "reconnectAttempt <n>", "error <JSON>", "event <name>" for the server's,
/// and "trace <line>".
class Probe {
public:
  static SocketManagerConfig quickConfig();

  explicit Probe(const std::string& url, SocketManagerConfig config = quickConfig(),
                 SocketManagerOptions options = {});
  ~Probe();

  /// Connects and waits until the server has greeted; false when it does not.
  bool connect();
  /// Waits for the acknowledgement; nothing after 10 seconds.
  std::optional<SocketItems> ask(const std::string& event, SocketItems items = {},
                                 std::chrono::milliseconds timeout = std::chrono::seconds(10));
  /// Waits until everything that was handed to the handlers' queue so far has run.
  void settle();

  std::shared_ptr<Queue> queue;
  std::shared_ptr<SocketManager> manager;
  std::shared_ptr<SocketIOClient> client;
  std::shared_ptr<Log> log = std::make_shared<Log>();
};

SocketItem json(const std::string& text);
SocketItem bytes(const std::string& text);
/// Items as one line: JSON of each, bytes as <length:text>.
std::string show(const SocketItems& items);

}  // namespace kestrova::test
