// How long a join takes on loopback, from join() to onMeetingJoined. The protocol's fixed pause
// after "connectionSuccess" is told apart from what the library, the service and the engine take.

#include <kestrova/session/Kestrova.h>

#include "LocalService.h"
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <vector>

namespace kestrova {
namespace {

constexpr double fixedPauseMs = 100;

class Joined final : public MeetingEventListener {
public:
  void onMeetingJoined(const std::optional<std::string>&) override { _joined.set_value(); }
  void onMeetingLeft() override { _left.set_value(); }
  std::future<void> joined() { return _joined.get_future(); }
  std::future<void> left() { return _left.get_future(); }

private:
  std::promise<void> _joined;
  std::promise<void> _left;
};

double joinOnceMs(const test::LocalService& service) {
  const auto listener = std::make_shared<Joined>();
  auto joined = listener->joined();
  auto left = listener->left();
  const auto meeting =
      Kestrova::initMeeting({.meetingId = "bench", .signalingBaseUrl = service.address()});
  meeting->addEventListener(listener);
  const auto start = std::chrono::steady_clock::now();
  meeting->join();
  if (joined.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
    std::fputs("the join did not come through\n", stderr);
    std::exit(1);
  }
  const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
  meeting->leave();
  left.wait_for(std::chrono::seconds(5));
  return took.count();
}

}  // namespace
}  // namespace kestrova

int main() {
  using namespace kestrova;
  Kestrova::setLogLevel(LogLevel::none);
  const test::LocalService service;
  Kestrova::config(service.token());
  joinOnceMs(service);  // the first one also starts the engine and the service's media worker
  std::vector<double> times;
  for (int i = 0; i < 20; ++i) times.push_back(joinOnceMs(service));
  std::sort(times.begin(), times.end());
  const double median = times[times.size() / 2];
  std::printf("join() to onMeetingJoined, 20 joins: median %.1f ms (%.1f to %.1f)\n", median,
              times.front(), times.back());
  std::printf("of it the fixed pause %.0f ms, all the rest %.1f ms: %.2f of the pause\n",
              fixedPauseMs, median - fixedPauseMs, (median - fixedPauseMs) / fixedPauseMs);
}
