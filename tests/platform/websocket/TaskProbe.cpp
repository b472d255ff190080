#include "TaskProbe.h"

#include <kestrova/platform/Platform.h>

#include <gtest/gtest.h>

namespace kestrova::test {
namespace {

class InstallTaskPlatform : public ::testing::Environment {
public:
  void SetUp() override {
    Platform platform;
    platform.background = Runtime::background();
    platform.scheduler = Runtime::scheduler();
    Platform::install(std::move(platform));
  }
};
const auto* const taskEnvironment = ::testing::AddGlobalTestEnvironment(new InstallTaskPlatform);

std::string withError(const char* line, const std::optional<std::string>& error) {
  return error ? std::string(line) + " " + *error : line;
}

std::string showMessage(const WebSocketTask::Message& message) {
  const bool isText = message.kind == WebSocketTask::Message::Kind::text;
  const std::string bytes(message.bytes.begin(), message.bytes.end());
  return (isText ? "text " : "data ") + (bytes.size() < 50 ? bytes : std::to_string(bytes.size()));
}

}  // namespace

std::string webSocketUrl(const std::string& url) {
  return url.starts_with("http") ? "ws" + url.substr(4) : url;
}

TaskProbe::TaskProbe(const std::string& url, WebSocketOptions options,
                     boost::asio::any_io_executor io)
    : _url(webSocketUrl(url) + "/path?token=hush"),
      _options(std::move(options)),
      _io(std::move(io)) {}

void TaskProbe::start() {
  const auto weak = weak_from_this();
  auto telling = [weak, kept = held](const std::string& line) {
    if (const auto self = weak.lock()) self->tell(line);
  };
  WebSocketTask::Events events;
  events.didOpen = [telling] { telling("open"); };
  events.didClose = [telling](std::uint16_t code) { telling("close " + std::to_string(code)); };
  events.didComplete = [telling](const auto& error) { telling(withError("complete", error)); };
  held.reset();
  task = makeWebSocketTask(_url, queue, std::move(events), _io, _options);
  act([](WebSocketTask& made) { made.resume(); });
}

void TaskProbe::act(const std::function<void(WebSocketTask&)>& operation) {
  auto run = [&] {
    const auto kept = task;
    if (!kept) return;
    _operating = true;
    operation(*kept);
    _operating = false;
  };
  if (queue->isCurrent()) return run();
  queue->sync(run);
}

void TaskProbe::ask(bool again) {
  act([&](WebSocketTask& asked) {
    asked.receive([weak = weak_from_this(), again](auto result) {
      const auto self = weak.lock();
      if (!self) return;
      const auto* message = std::get_if<WebSocketTask::Message>(&result);
      self->tell(message ? showMessage(*message) : "failed " + std::get<1>(result));
      if (message && again) self->ask(true);
    });
  });
}

void TaskProbe::receive() {
  ask(false);
}
void TaskProbe::receiveAll() {
  ask(true);
}

void TaskProbe::send(const std::string& bytes) {
  act([&](WebSocketTask& sending) {
    sending.send({bytes.begin(), bytes.end()}, [weak = weak_from_this()](const auto& error) {
      if (const auto self = weak.lock()) self->tell(withError("sent", error));
    });
  });
}

void TaskProbe::cancel(std::uint16_t code) {
  act([&](WebSocketTask& ending) { ending.cancel(code); });
}

void TaskProbe::settle() {
  queue->sync([] {});
}

void TaskProbe::tell(const std::string& line) {
  const bool astray = _operating || !queue->isCurrent();
  log.add((astray ? "ASTRAY " : "") + line);
  if (!line.starts_with("text")) {
    EXPECT_EQ(line.find("hush"), std::string::npos) << line;
  }
  told(line);
}

std::shared_ptr<TaskProbe> startTask(const std::string& url, WebSocketOptions options) {
  auto probe = std::make_shared<TaskProbe>(url, std::move(options));
  probe->start();
  return probe;
}

std::shared_ptr<TaskProbe> startReading(const std::string& url, WebSocketOptions options) {
  auto probe = std::make_shared<TaskProbe>(url, std::move(options));
  probe->queue->sync([&] {
    probe->start();
    probe->receiveAll();
  });
  return probe;
}

}  // namespace kestrova::test
