#include <kestrova/platform/Escaped.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/platform/linux/websocket/WebSocketTaskImpl.h>

#include <boost/asio/post.hpp>

#include <atomic>
#include <deque>
#include <mutex>
#include <utility>

namespace kestrova {

namespace asio = boost::asio;

namespace {

/// What is read ahead while nobody asks for it. Reading starts again when half of it has gone.
constexpr std::size_t mostAhead = 256 * 1024;
/// What a message costs beside its bytes: a flood of empty ones counts as well.
constexpr std::size_t messageCost = 64;
/// What is told in one piece of the queue's work: a flood must leave their turns to others.
constexpr int mostAtOnce = 256;

/// What the task's handle, its socket and its work on the queue share. Only the handle and work
/// that is about to run hold it, so it goes with the handle.
class TaskCore final : public WebSocketListener, public std::enable_shared_from_this<TaskCore> {
public:
  using Message = WebSocketTask::Message;
  using Error = WebSocketTask::Error;

  TaskCore(WebSocketEndpoint endpoint, std::shared_ptr<SerialQueue> queue,
           WebSocketTask::Events events, asio::any_io_executor io, WebSocketOptions options)
      : _strand(std::move(io)),
        _queue(std::move(queue)),
        _endpoint(std::move(endpoint)),
        _options(std::move(options)),
        _events(std::move(events)) {}

  // For the queue.
  void resume();
  void receive(WebSocketTask::ReceiveHandler handler);
  void send(std::vector<std::uint8_t> data, WebSocketTask::SendHandler completion);

  /// Tells nothing from now on, and closes. Any thread.
  void finish(std::uint16_t closeCode);
  void assertCaller() const { assertOnQueue(*_queue); }

private:
  struct End {
    Error error;
    std::optional<std::uint16_t> closeCode;
  };
  /// What of the end is to be told next.
  enum class Stage { toReceiver, close, completion, over };

  void webSocketOpened() override;
  void webSocketText(std::string_view text) override;
  void webSocketBytes(std::span<const std::uint8_t> bytes) override;
  void webSocketClosed(const std::string& reason, std::optional<std::uint16_t> code) override;
  void keep(Message message);

  static std::size_t costOf(const Message& message) { return message.bytes.size() + messageCost; }
  void schedule();
  void drain();
  void answer(std::function<void()> call);
  void tellAnswers();
  bool tellNext();
  bool tellEnd();
  void failReceiver();
  void forget();

  const WebSocketStrand _strand;
  const std::shared_ptr<SerialQueue> _queue;
  const WebSocketEndpoint _endpoint;
  const WebSocketOptions _options;
  std::shared_ptr<WebSocket> _socket;  ///< set once, by `resume`
  std::atomic<bool> _silent{false};

  // On the queue.
  WebSocketTask::Events _events;
  WebSocketTask::ReceiveHandler _receiver;
  std::vector<std::function<void()>> _answers;
  Stage _stage = Stage::toReceiver;

  std::mutex _lock;  // guards the fields below
  bool _opened = false;
  std::deque<Message> _inbox;
  std::size_t _ahead = 0;
  bool _paused = false;
  std::optional<End> _end;
  bool _scheduled = false;
};

// ---- Operations --------------------------------------------------------------------------------

void TaskCore::resume() {
  if (_silent || _socket) return;
  _socket = std::make_shared<WebSocket>(_strand, _endpoint, _options, weak_from_this());
  asio::post(_strand, [socket = _socket] { socket->open(); });
}

void TaskCore::receive(WebSocketTask::ReceiveHandler handler) {
  if (_silent || !handler) return;
  if (_receiver)
    return answer(
        [handler = std::move(handler)] { handler(Error("a message is waited for already")); });
  _receiver = std::move(handler);
  {
    std::scoped_lock held(_lock);
    if (_inbox.empty() && !_end) return;
  }
  schedule();
}

void TaskCore::send(std::vector<std::uint8_t> data, WebSocketTask::SendHandler completion) {
  if (_silent) return;
  std::optional<Error> error;
  switch (_socket ? _socket->send(std::move(data)) : WebSocket::SendResult::closed) {
    case WebSocket::SendResult::queued:
      break;
    case WebSocket::SendResult::closed:
      error = "the connection is not open";
      break;
    case WebSocket::SendResult::full:
      error = "too much waits to be sent";
      break;
  }
  if (completion)
    answer([completion = std::move(completion), error = std::move(error)] { completion(error); });
}

void TaskCore::finish(std::uint16_t closeCode) {
  if (_silent.exchange(true)) return;
  if (_socket) asio::post(_strand, [socket = _socket, closeCode] { socket->close(closeCode); });
  _queue->async([self = shared_from_this()] { self->forget(); });
}

/// Lets go of what the handlers hold; their destructors may do as they please.
void TaskCore::forget() {
  const auto events = std::exchange(_events, {});
  const auto receiver = std::exchange(_receiver, {});
  const auto answers = std::exchange(_answers, {});
  std::scoped_lock held(_lock);
  _inbox.clear();
}

// ---- From the network --------------------------------------------------------------------------

void TaskCore::webSocketOpened() {
  {
    std::scoped_lock held(_lock);
    _opened = true;
  }
  schedule();
}

void TaskCore::webSocketText(std::string_view text) {
  keep({Message::Kind::text, {text.begin(), text.end()}});
}

void TaskCore::webSocketBytes(std::span<const std::uint8_t> bytes) {
  keep({Message::Kind::data, {bytes.begin(), bytes.end()}});
}

void TaskCore::keep(Message message) {
  if (_silent) return;
  bool pauses = false;
  {
    std::scoped_lock held(_lock);
    _ahead += costOf(message);
    _inbox.push_back(std::move(message));
    pauses = _paused = _ahead >= mostAhead;
  }
  if (pauses) _socket->pauseReading();
  schedule();
}

void TaskCore::webSocketClosed(const std::string& reason, std::optional<std::uint16_t> code) {
  {
    std::scoped_lock held(_lock);
    _end = End{code ? reason + " (code " + std::to_string(*code) + ')' : reason, code};
  }
  schedule();
}

// ---- To the owner, on the queue ----------------------------------------------------------------

/// One piece of work tells whatever has come until it runs.
void TaskCore::schedule() {
  {
    std::scoped_lock held(_lock);
    if (std::exchange(_scheduled, true)) return;
  }
  _queue->async([self = shared_from_this()] { self->drain(); });
}

void TaskCore::drain() {
  {
    std::scoped_lock held(_lock);
    _scheduled = false;
  }
  tellAnswers();
  for (int told = 0; !_silent; ++told) {
    if (told == mostAtOnce) return schedule();
    try {
      if (!tellNext()) return;
    } catch (...) {
      reportEscaped("a WebSocket's handler");
    }
  }
}

void TaskCore::answer(std::function<void()> call) {
  _answers.push_back(std::move(call));
  schedule();
}

void TaskCore::tellAnswers() {
  for (const auto& call : std::exchange(_answers, {})) {
    if (_silent) return;
    try {
      call();
    } catch (...) {
      reportEscaped("a WebSocket's handler");
    }
  }
}

/// Each handler is taken out before it is called: it may make the next request, cancel, or let the
/// task go. False when there is nothing more to tell.
bool TaskCore::tellNext() {
  std::unique_lock held(_lock);
  if (std::exchange(_opened, false)) {
    held.unlock();
    if (const auto tell = std::exchange(_events.didOpen, {})) tell();
    return true;
  }
  if (_inbox.empty()) {
    const bool ended = _end.has_value();
    held.unlock();
    return ended && tellEnd();
  }
  if (!_receiver) return false;
  auto message = std::move(_inbox.front());
  _inbox.pop_front();
  _ahead -= costOf(message);
  const bool resumes = _paused && _ahead < mostAhead / 2;
  if (resumes) _paused = false;
  held.unlock();
  if (resumes) asio::post(_strand, [socket = _socket] { socket->resumeReading(); });
  std::exchange(_receiver, {})(std::move(message));
  return true;
}

/// The next step of the end, which doesn't change any more. Whoever waits for a message hears of it
/// first; who asks after that, last.
bool TaskCore::tellEnd() {
  switch (_stage) {
    case Stage::toReceiver:
      _stage = Stage::close;
      failReceiver();
      return true;
    case Stage::close:
      _stage = Stage::completion;
      if (const auto tell = std::exchange(_events.didClose, {}); tell && _end->closeCode)
        tell(*_end->closeCode);
      return true;
    case Stage::completion: {
      _stage = Stage::over;
      tellAnswers();
      const auto events = std::exchange(_events, {});
      if (_silent || !events.didComplete) return true;
      events.didComplete(_end->closeCode ? std::nullopt : std::optional(_end->error));
      return true;
    }
    case Stage::over:
      if (!_receiver) return false;
      failReceiver();
      return true;
  }
  return false;
}

void TaskCore::failReceiver() {
  if (const auto receiver = std::exchange(_receiver, {})) receiver(_end->error);
}

// ---- The handle --------------------------------------------------------------------------------

/// Others would make the close frame itself a fault. RFC 6455, section 7.4.
bool mayBeSent(std::uint16_t closeCode) {
  const bool ofProtocol = closeCode >= 1000 && closeCode <= 1013;
  const bool reserved = closeCode >= 1004 && closeCode <= 1006;
  return (ofProtocol && !reserved) || (closeCode >= 3000 && closeCode <= 4999);
}

/// What the owner holds; the connection ends with it. The core is kept during each operation, in
/// which a handler may let go of the handle.
class WebSocketTaskImpl final : public WebSocketTask {
public:
  explicit WebSocketTaskImpl(std::shared_ptr<TaskCore> core) : _core(std::move(core)) {}
  ~WebSocketTaskImpl() override { _core->finish(goingAway); }

  void resume() override { core()->resume(); }
  void receive(ReceiveHandler handler) override { core()->receive(std::move(handler)); }
  void send(std::vector<std::uint8_t> data, SendHandler completion) override {
    core()->send(std::move(data), std::move(completion));
  }
  void cancel(std::uint16_t closeCode) override {
    core()->finish(mayBeSent(closeCode) ? closeCode : goingAway);
  }

private:
  std::shared_ptr<TaskCore> core() const {
    _core->assertCaller();
    return _core;
  }
  const std::shared_ptr<TaskCore> _core;
};

bool hasWebSocketScheme(const std::string& url) {
  std::string scheme = url.substr(0, url.find(':'));
  for (char& c : scheme) c = static_cast<char>(c | 0x20);
  return scheme == "ws" || scheme == "wss";
}

}  // namespace

std::shared_ptr<WebSocketTask> makeWebSocketTask(const std::string& url,
                                                 std::shared_ptr<SerialQueue> queue,
                                                 WebSocketTask::Events events,
                                                 asio::any_io_executor io,
                                                 WebSocketOptions options) {
  if (!hasWebSocketScheme(url)) return nullptr;
  auto endpoint = WebSocketEndpoint::make(url);
  if (!endpoint) return nullptr;
  if (!options.scheduler) options.scheduler = Platform::current()->scheduler;
  options.limits.maxIncomingBytes = WebSocketTask::mostIncomingBytes;
  // A message as long as the longest incoming one can follow another.
  options.limits.maxWaitingBytes = 2 * WebSocketTask::mostIncomingBytes;
  return std::make_shared<WebSocketTaskImpl>(
      std::make_shared<TaskCore>(std::move(*endpoint), std::move(queue), std::move(events),
                                 std::move(io), std::move(options)));
}

}  // namespace kestrova
