#include "TestPlatform.h"

#include <kestrova/signalling/SDKConfiguration.h>

namespace kestrova::test {

TestPlatform::TestPlatform()
    : capture(std::make_shared<ScriptedCapture>(journal, _io.get_executor())) {
  Platform platform{
      .background = _io.get_executor(),
      .scheduler = clock,
      .urlSession = session,
      .captureDevices = capture,
      .makeSocketManager = [service = service](const std::string& url, SocketManagerConfig config)
          -> std::shared_ptr<SocketManager> {
        if (!url.starts_with("https://") || url.find(' ') != std::string::npos) return nullptr;
        return service->connect(url, std::move(config));
      },
      .makeWebSocketTask =
          [topics = topics](const std::string& url, std::shared_ptr<SerialQueue> queue,
                            WebSocketTask::Events events) {
            return topics->make(url, std::move(queue), std::move(events));
          },
      .makeDevice = [media = media] { return std::make_shared<ScriptedDevice>(media); },
      .peerConnectionFactory = [factory = factory] { return factory; },
      .operatingSystem = {.machine = "x86_64", .major = 12, .minor = 5, .patch = 0},
      .frameCryptors = cryptors,
      .screenSharing = screen,
      .audioSession = audio,
      .rtcAudioSession = std::make_shared<RTCAudioSession>(audio),
      .makeCallObserver = [calls = calls] { return calls; }};
  Platform::install(std::move(platform));
  MainQueue::adopt(_io.get_executor());
  SdkTracer::shared().setLogLevel(LogLevel::none);
  SDKConfiguration::shared().updateTraceConfig({{"logs", Dictionary()}});
  traces.clear();
}

TestPlatform::~TestPlatform() {
  pump();
  MainQueue::adopt({});
  Platform::install({});
}

void TestPlatform::pump() {
  do {
    _io.restart();
  } while (_io.poll() > 0);
}

void TestPlatform::advance(std::chrono::milliseconds time) {
  pump();
  const auto limit = clock->now() + time;
  while (clock->runNext(limit)) pump();
}

void TestPlatform::run(Task<void> task) {
  auto done = [](Task<void> inner) -> Task<bool> {
    co_await std::move(inner);
    co_return true;
  };
  run(done(std::move(task)));
}

}  // namespace kestrova::test
