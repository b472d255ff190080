// shared-counter SERVICE MEETING [TIMES], with the access token in KESTROVA_TOKEN: raises a counter
// that the whole meeting shares, once or so many times, and tells whoever raises it, until the
// meeting ends or Ctrl-C. Two who raise it in the same moment may raise it by one together: the
// store has no operation that reads and writes at once.
#include <kestrova/kestrova.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/realtime/RealtimeStore.h>

#include "support/Printable.h"
#include "support/Stay.h"
#include <cstdlib>

using namespace kestrova;

struct Counter : MeetingEventListener,
                 RealtimeStoreEventListener,
                 std::enable_shared_from_this<Counter> {
  std::shared_ptr<RealtimeStore> store;
  long times = 1;

  // Comes again after a lost connection, and what that interrupted goes on.
  void onMeetingJoined(const std::optional<std::string>&) override {
    spawnOn(MainQueue::shared(), raise(shared_from_this()));
  }
  void onValueChanged(const std::string&, const std::optional<std::string>& value,
                      const std::string& updatedBy) override {
    std::puts(terminal::printable(value.value_or("0") + " by " + updatedBy).c_str());
    std::fflush(stdout);
  }
  static Task<void> raise(std::shared_ptr<Counter> self) try {
    const auto store = self->store;
    auto observing = store->observe("counter", self);
    co_await std::move(observing);
    for (; self->times > 0; --self->times) {
      auto getting = store->get("counter");
      const std::optional<std::string> value = co_await std::move(getting);
      const long count = std::strtol(value.value_or("0").c_str(), nullptr, 10);
      auto setting = store->set("counter", std::to_string(count + 1));
      co_await std::move(setting);
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
  }
};

int main(int argc, char** argv) {
  const char* token = std::getenv("KESTROVA_TOKEN");
  if (argc < 3 || argc > 4 || !token)
    return std::fputs("usage: KESTROVA_TOKEN=... shared-counter SERVICE MEETING [TIMES]\n", stderr),
           2;
  boost::asio::io_context loop(1);
  MainQueue::adopt(loop.get_executor());
  Kestrova::setLogLevel(LogLevel::none);
  Kestrova::configureCapture(CaptureConfig::headless());
  Kestrova::config(token);
  const auto counter = std::make_shared<Counter>();
  if (argc == 4) counter->times = std::strtol(argv[3], nullptr, 10);
  auto meeting = Kestrova::initMeeting({.meetingId = argv[2],
                                        .participantName = "Counter",
                                        .mode = Mode::SIGNALLING_ONLY,
                                        .signalingBaseUrl = argv[1]});
  counter->store = meeting->realtimeStore();
  meeting->addEventListener(counter);
  return stay(loop, std::move(meeting));
}
