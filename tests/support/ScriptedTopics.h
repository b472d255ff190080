#pragma once

#include <kestrova/platform/Queue.h>
#include <kestrova/platform/WebSocketTask.h>

#include "FastwsFrames.h"
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace kestrova::test {

/// The topic server and the network to it: every WebSocket that is made goes through here. The test
/// plays the server with the newest one.
class ScriptedTopics {
public:
  class Task;

  std::shared_ptr<WebSocketTask> make(const std::string& url, std::shared_ptr<SerialQueue> queue,
                                      WebSocketTask::Events events);

  // ---- The server's side, each posted to the client's queue
  void open();
  void deliver(Bytes frame, WebSocketTask::Message::Kind kind = WebSocketTask::Message::Kind::data);
  /// The server closes: the pending receive, the close and the end are all told.
  void close(std::uint16_t code);
  /// The network fails.
  void lose(const std::string& error = "connection reset");

  /// What a connection would say, also one that the client has replaced.
  const WebSocketTask::Events& events(std::size_t connection) const {
    return _events.at(connection);
  }

  // ---- What the client did
  std::vector<std::string> urls;  ///< of every attempt
  std::vector<ClientFrame> sent;  ///< on all connections
  std::vector<std::uint16_t> cancelled;
  bool isConnected() const;
  /// The newest frame of that kind. \throws std::out_of_range
  const ClientFrame& last(ClientFrame::Kind kind) const;
  long count(ClientFrame::Kind kind) const;
  /// Opens and answers everything with yes from now on, as the best of servers.
  bool obliging = false;

private:
  std::shared_ptr<Task> current() const;
  void oblige(const ClientFrame& frame);
  std::vector<std::weak_ptr<Task>> _tasks;
  std::vector<WebSocketTask::Events> _events;
};

}  // namespace kestrova::test
