#include "Probe.h"

#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Runtime.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <future>

namespace kestrova::test {
namespace {

constexpr auto patience = std::chrono::seconds(10);

class InstallPlatform : public ::testing::Environment {
public:
  void SetUp() override {
    Platform platform;
    platform.background = Runtime::background();
    platform.scheduler = Runtime::scheduler();
    Platform::install(std::move(platform));
  }
};
const auto* const environment = ::testing::AddGlobalTestEnvironment(new InstallPlatform);

}  // namespace

SocketManagerConfig Probe::quickConfig() {
  SocketManagerConfig config;
  config.reconnectWait = std::chrono::milliseconds(10);
  config.reconnectWaitMax = std::chrono::milliseconds(40);
  config.reconnectAttempts = 7;
  return config;
}

Probe::Probe(const std::string& url, SocketManagerConfig config, SocketManagerOptions options)
    : queue(SerialQueue::make("probe")) {
  config.handleQueue = queue;
  config.trace = [log = log](const std::string& line) { log->add("trace " + line); };
  manager = makeSocketManager(url, std::move(config), Runtime::network(), std::move(options));
  client = manager->defaultSocket();
  const std::pair<SocketClientEvent, const char*> events[] = {
      {SocketClientEvent::connect, "connect "},
      {SocketClientEvent::disconnect, "disconnect "},
      {SocketClientEvent::reconnect, "reconnect "},
      {SocketClientEvent::reconnectAttempt, "reconnectAttempt "},
      {SocketClientEvent::error, "error "}};
  for (const auto& [event, name] : events)
    client->on(event, [log = log, line = std::string(name)](const SocketItems& items) {
      log->add(line + show(items));
    });
  client->onAny([log = log](const SocketAnyEvent& event) {
    log->add("event " + event.event + " " + show(event.items));
  });
}

Probe::~Probe() = default;

bool Probe::connect() {
  const auto before = log->count("event connectionSuccess");
  client->connect();
  return log->waitFor("event connectionSuccess", before + 1);
}

std::optional<SocketItems> Probe::ask(const std::string& event, SocketItems items,
                                      std::chrono::milliseconds timeout) {
  auto promise = std::make_shared<std::promise<SocketItems>>();
  auto future = promise->get_future();
  client->emitWithAck(event, std::move(items), timeout,
                      [promise](const SocketItems& answer) { promise->set_value(answer); });
  if (future.wait_for(patience) != std::future_status::ready) return std::nullopt;
  return future.get();
}

void Probe::settle() {
  std::promise<void> done;
  queue->async([&done] { done.set_value(); });
  done.get_future().wait();
}

SocketItem json(const std::string& text) {
  return boost::json::parse(text);
}
SocketItem bytes(const std::string& text) {
  return SocketBytes(text.begin(), text.end());
}

std::string show(const SocketItems& items) {
  std::string line;
  for (const auto& item : items) {
    if (!line.empty()) line += ' ';
    if (const auto* blob = std::get_if<SocketBytes>(&item))
      line.append("<")
          .append(std::to_string(blob->size()))
          .append(":")
          .append(blob->begin(), blob->begin() + std::min<std::ptrdiff_t>(16, std::ssize(*blob)))
          .append(">");
    else
      line += boost::json::serialize(std::get<Value>(item));
  }
  return line;
}

}  // namespace kestrova::test
