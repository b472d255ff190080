#include "ScriptedTopics.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace kestrova::test {

class ScriptedTopics::Task final : public WebSocketTask, public std::enable_shared_from_this<Task> {
public:
  Task(ScriptedTopics& topics, std::shared_ptr<SerialQueue> queue, Events events)
      : _topics(topics), _queue(std::move(queue)), _events(std::move(events)) {}

  void resume() override {
    _running = true;
    if (_topics.obliging) open();
  }
  void receive(ReceiveHandler handler) override {
    _receiving = std::move(handler);
    serve();
  }
  void send(std::vector<std::uint8_t> data, SendHandler completion) override {
    const ClientFrame frame(data);
    _topics.sent.push_back(frame);
    _queue->async([completion = std::move(completion)] { completion(std::nullopt); });
    if (_topics.obliging) _topics.oblige(frame);
  }
  void cancel(std::uint16_t closeCode) override {
    _topics.cancelled.push_back(closeCode);
    _running = false;
  }

  void open() {
    post([](Task& self) { self._events.didOpen(); });
  }
  void deliver(Message message) {
    _inbox.push_back(std::move(message));
    post([](Task& self) { self.serve(); });
  }
  void end(std::optional<std::uint16_t> code, std::optional<Error> error) {
    post([code, error](Task& self) {
      if (auto handler = std::exchange(self._receiving, {})) handler(error.value_or("closed"));
      if (code) self._events.didClose(*code);
      self._events.didComplete(error);
    });
  }
  bool isRunning() const { return _running; }

private:
  template <class Step>
  void post(Step step) {
    _queue->async([weak = weak_from_this(), step = std::move(step)] {
      if (const auto self = weak.lock()) step(*self);
    });
  }
  void serve() {
    if (_inbox.empty() || !_receiving || !_running) return;
    _queue->async([handler = std::exchange(_receiving, {}), message = std::move(_inbox.front())] {
      handler(message);
    });
    _inbox.pop_front();
  }

  ScriptedTopics& _topics;
  const std::shared_ptr<SerialQueue> _queue;
  const Events _events;
  ReceiveHandler _receiving;
  std::deque<Message> _inbox;
  bool _running = false;
};

std::shared_ptr<WebSocketTask> ScriptedTopics::make(const std::string& url,
                                                    std::shared_ptr<SerialQueue> queue,
                                                    WebSocketTask::Events events) {
  urls.push_back(url);
  if (!url.starts_with("ws")) return nullptr;
  _events.push_back(events);
  auto task = std::make_shared<Task>(*this, std::move(queue), std::move(events));
  _tasks.push_back(task);
  return task;
}

std::shared_ptr<ScriptedTopics::Task> ScriptedTopics::current() const {
  auto task = _tasks.empty() ? nullptr : _tasks.back().lock();
  if (!task) throw std::logic_error("there is no connection to the topic server");
  return task;
}

bool ScriptedTopics::isConnected() const {
  const auto task = _tasks.empty() ? nullptr : _tasks.back().lock();
  return task && task->isRunning();
}

void ScriptedTopics::open() {
  current()->open();
}
void ScriptedTopics::deliver(Bytes frame, WebSocketTask::Message::Kind kind) {
  current()->deliver({kind, std::move(frame)});
}
void ScriptedTopics::close(std::uint16_t code) {
  current()->end(code, std::nullopt);
}
void ScriptedTopics::lose(const std::string& error) {
  current()->end(std::nullopt, error);
}

void ScriptedTopics::oblige(const ClientFrame& frame) {
  if (frame.kind != ClientFrame::pong) deliver(ackFrame(frame.requestId()));
}

const ClientFrame& ScriptedTopics::last(ClientFrame::Kind kind) const {
  const auto found = std::find_if(sent.rbegin(), sent.rend(),
                                  [&](const ClientFrame& frame) { return frame.kind == kind; });
  if (found == sent.rend()) throw std::out_of_range("no such frame was sent");
  return *found;
}

long ScriptedTopics::count(ClientFrame::Kind kind) const {
  return std::count_if(sent.begin(), sent.end(),
                       [&](const ClientFrame& frame) { return frame.kind == kind; });
}

}  // namespace kestrova::test
