// What the library costs on top of the engine that it drives, in one run: 720p30 VP8 in one layer
// through a media server on this machine, by two meetings of the library and, in turn with them, by
// the same engine and transports without it. The servers are other processes and not counted.
//
//   bench_media [seconds of each measurement] [rounds]

#include <kestrova/platform/Platform.h>

#include "Calls.h"
#include "Process.h"
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>

namespace kestrova::bench {
namespace {

using std::chrono::steady_clock;

struct Measured {
  std::vector<double> cpuPercent;  // one a round
  std::vector<double> ages;        // ms; all pictures of all rounds
  std::vector<double> medianAges;  // one a round
  std::vector<double> rates;       // pictures a second
};

constexpr auto kWarmUp = std::chrono::seconds(4);

void measure(Call& call, std::chrono::seconds span, Measured& into) {
  if (!call.watch->waitForWidth(1280)) giveUp("no 720p picture came through");
  std::this_thread::sleep_for(kWarmUp);
  call.watch->takeAges();
  const auto start = steady_clock::now();
  const double before = cpuSeconds();
  std::this_thread::sleep_for(span);
  const double used = cpuSeconds() - before;
  const std::chrono::duration<double> took = steady_clock::now() - start;
  const auto ages = call.watch->takeAges();
  into.cpuPercent.push_back(100 * used / took.count());
  into.rates.push_back(static_cast<double>(ages.size()) / took.count());
  into.medianAges.push_back(spreadOf(ages).median);
  into.ages.insert(into.ages.end(), ages.begin(), ages.end());
}

void printRow(const char* name, const char* unit, const std::vector<double>& bare,
              const std::vector<double>& library, bool asRatio) {
  const auto b = spreadOf(bare);
  const auto l = spreadOf(library);
  std::printf("%-26s %7.2f (%.2f to %.2f)   %7.2f (%.2f to %.2f)   ", name, b.median, b.low, b.high,
              l.median, l.low, l.high);
  std::vector<double> ratios;
  for (std::size_t i = 0; asRatio && i < bare.size(); ++i) ratios.push_back(library[i] / bare[i]);
  if (asRatio)
    std::printf("%.3f x; within a round %.3f x\n", l.median / b.median, spreadOf(ratios).median);
  else
    std::printf("%+.2f %s\n", l.median - b.median, unit);
}

void compareCalls(const test::LocalService& service, std::chrono::seconds span, int rounds) {
  Measured bare;
  Measured library;
  test::Sfu server;
  const auto byEngine = [&] {
    BareCall call(server);
    measure(call, span, bare);
  };
  const auto byLibrary = [&] {
    MeetingCall call(service);
    measure(call, span, library);
  };
  for (int round = 0; round < rounds; ++round) {
    // Each goes first as often as the other: the machine's load drifts.
    const std::array<std::function<void()>, 2> order{byEngine, byLibrary};
    order[round % 2]();
    order[(round + 1) % 2]();
    std::printf("round %d: CPU %.2f and %.2f %%, delay %.2f and %.2f ms, load %.1f\n", round + 1,
                bare.cpuPercent.back(), library.cpuPercent.back(), bare.medianAges.back(),
                library.medianAges.back(), machineLoad());
    std::fflush(stdout);
  }
  std::printf("\n720p30 VP8 send + receive, %d rounds of %lld s each: median (lowest to highest)\n",
              rounds, static_cast<long long>(span.count()));
  std::printf("%-26s %-26s   %-26s   %s\n", "", "engine and transports", "the library", "");
  printRow("CPU, % of a core", "%", bare.cpuPercent, library.cpuPercent, true);
  printRow("pictures a second", "", bare.rates, library.rates, true);
  printRow("picture delay, rounds, ms", "ms", bare.medianAges, library.medianAges, false);
  printRow("picture delay, all, ms", "ms", bare.ages, library.ages, false);
}

using Join = std::function<std::shared_ptr<Person>(int number)>;

void printGrowth(const char* title, const Join& join) {
  std::printf("\n%s\n%10s %12s %10s %24s %20s\n", title, "meetings", "resident MB", "threads",
              "MB per further meeting", "threads per further");
  std::vector<std::shared_ptr<Person>> people;
  Footprint first;
  for (const std::size_t count : {1, 2, 4, 8}) {
    while (people.size() < count) people.push_back(join(static_cast<int>(people.size())));
    std::this_thread::sleep_for(kWarmUp);
    const auto now = footprint();
    std::printf("%10zu %12.1f %10d", count, now.residentMb, now.threads);
    if (count == 1)
      first = now;
    else
      std::printf(" %24.2f %20.2f", (now.residentMb - first.residentMb) / double(count - 1),
                  double(now.threads - first.threads) / double(count - 1));
    std::printf("\n");
    std::fflush(stdout);
  }
  for (const auto& person : people) person->leaveAndWait();
}

void countMeetings(const test::LocalService& service) {
  constexpr auto small = CustomVideoTrackConfig::h180p_w320p;
  const auto options = [](const std::string& room, int number) {
    return InitMeetingOptions{.meetingId = room, .participantId = std::to_string(number)};
  };
  const auto sending = [&](const std::string& room, int number) {
    auto asked = options(room, number);
    asked.webcamEnabled = true;
    asked.customCameraVideoStream = oneLayerCamera(small);
    asked.multiStream = false;
    return asked;
  };
  printGrowth("Meetings of one process, each alone in its room and sending 180p:", [&](int number) {
    return Person::join(service, sending("alone" + std::to_string(number), number));
  });
  const auto source = Person::join(service, sending("shared", 99));
  printGrowth("Receive-only meetings of one process, besides one that sends them 180p:",
              [&](int number) {
                auto watch = std::make_shared<DelayWatch>();
                auto person = Person::join(service, options("shared", number), watch);
                if (!watch->waitForWidth(320)) giveUp("a receiver sees nothing");
                return person;
              });
  source->leaveAndWait();
}

}  // namespace
}  // namespace kestrova::bench

int main(int count, char** arguments) {
  using namespace kestrova;
  const int seconds = count > 1 ? std::atoi(arguments[1]) : 15;
  const int rounds = count > 2 ? std::atoi(arguments[2]) : 4;
  if (seconds < 1 || rounds < 1) bench::giveUp("usage: bench_media [seconds] [rounds]");
  Kestrova::setLogLevel(LogLevel::none);
  // The transports' own test support brings a smaller platform, which must not stay.
  Platform platform = *Platform::current();
  test::installPlatform();
  Platform::install(std::move(platform));

  const test::LocalService service;
  Kestrova::config(service.token());
  Kestrova::configureCapture({.camera = "pattern", .microphone = "none"});
  std::printf("load at the start: %.1f\n", bench::machineLoad());
  bench::countMeetings(service);
  std::printf("\n");
  bench::compareCalls(service, std::chrono::seconds(seconds), rounds);
}
