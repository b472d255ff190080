#pragma once

#include <kestrova/platform/Queue.h>
#include <kestrova/platform/Runtime.h>
#include <kestrova/platform/linux/websocket/WebSocketTaskImpl.h>

#include "Log.h"
#include <functional>
#include <memory>
#include <string>

namespace kestrova::test {

/// A task as its owner has it. Writes down what it tells: "open", "text <text>", "data <text>" or
/// "data <size>" for a long one, "failed <error>", "close <code>", "complete" or "complete
/// <error>", "sent" or "sent <error>". A line that is told from elsewhere than the queue, or from
/// within an operation, begins with "ASTRAY".
class TaskProbe : public std::enable_shared_from_this<TaskProbe> {
public:
  /// A server's URL, whose scheme may be http, with a secret in it.
  explicit TaskProbe(const std::string& url, WebSocketOptions options = {},
                     boost::asio::any_io_executor io = Runtime::network());
  void start();  ///< makes and resumes the task

  // From any thread, a handler's included.
  void receive();
  void receiveAll();  ///< and goes on when one has come
  void send(const std::string& bytes);
  void cancel(std::uint16_t code = WebSocketTask::goingAway);
  void act(const std::function<void(WebSocketTask&)>& operation);

  /// Waits until everything that was handed to the queue so far has run.
  void settle();

  Log log;
  /// Called after each line that it is told.
  std::function<void(const std::string& line)> told = [](const std::string&) {};
  /// What the handlers hold; ends with the task.
  std::shared_ptr<void> held;
  std::shared_ptr<WebSocketTask> task;
  const std::shared_ptr<SerialQueue> queue = SerialQueue::make("probe");

private:
  void tell(const std::string& line);
  void ask(bool again);

  const std::string _url;
  const WebSocketOptions _options;
  const boost::asio::any_io_executor _io;
  bool _operating = false;
};

std::shared_ptr<TaskProbe> startTask(const std::string& url, WebSocketOptions options = {});
/// The same; it asks for all messages from the start.
std::shared_ptr<TaskProbe> startReading(const std::string& url, WebSocketOptions options = {});
/// `url` of the scheme ws or wss.
std::string webSocketUrl(const std::string& url);

}  // namespace kestrova::test
