// A crowd in one room and one process: what joining costs, and how long it takes until everybody
// has left. Each has a microphone, so that each receives all the others. The service is another
// process and not counted.
//
//   bench_density [people] [how many of them send sound all the time]

#include <kestrova/media/AudioFrameSource.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/session/Kestrova.h>

#include "Endpoint.h"
#include "LocalService.h"
#include "Process.h"
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace kestrova::bench {
namespace {

using Clock = std::chrono::steady_clock;
constexpr int kStreams = 50;
constexpr auto kPatience = std::chrono::seconds(20);
/// What the engine still does for those who have left comes in this time.
constexpr auto kAftermath = std::chrono::seconds(3);

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

/// Counts events of all listeners, and waits for them.
class Tally {
public:
  void add() {
    std::scoped_lock held(_lock);
    ++_count;
    _changed.notify_all();
  }
  bool reaches(int wanted, std::chrono::seconds patience) {
    std::unique_lock held(_lock);
    return _changed.wait_for(held, patience, [&] { return _count >= wanted; });
  }
  int count() {
    std::scoped_lock held(_lock);
    return _count;
  }

private:
  std::mutex _lock;
  std::condition_variable _changed;
  int _count = 0;
};

struct Tallies {
  Tally joined, streams, left;
};

class Person final : public MeetingEventListener,
                     public ParticipantEventListener,
                     public std::enable_shared_from_this<Person> {
public:
  explicit Person(Tallies& tallies) : _tallies(tallies) {}
  void onMeetingJoined(const std::optional<std::string>&) override { _tallies.joined.add(); }
  void onMeetingLeft() override { _tallies.left.add(); }
  void onParticipantJoined(const std::shared_ptr<Participant>& other) override {
    other->addEventListener(shared_from_this());
    for (const auto& [id, stream] : other->streams()) onStreamEnabled(stream, other);
  }
  void onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                       const std::shared_ptr<Participant>&) override {
    if (_seen.insert(stream->id()).second) _tallies.streams.add();
  }

  std::shared_ptr<AudioFrameSource> sound = AudioFrameSource::make();
  std::shared_ptr<Meeting> meeting;

private:
  Tallies& _tallies;
  std::set<std::string> _seen;  // main queue
};

/// How long work for the main queue has to wait at most.
class MainQueueWatch {
public:
  MainQueueWatch() : _thread([this] { run(); }) {}
  double longestMs() {
    _ending = true;
    if (_thread.joinable()) _thread.join();
    return _longest;
  }

private:
  void run() {
    while (!_ending) {
      Tally done;
      const auto start = Clock::now();
      MainQueue::shared().async([&] { done.add(); });
      done.reaches(1, std::chrono::seconds(60));
      _longest = std::max(_longest, msSince(start));
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  std::atomic<bool> _ending{false};
  double _longest = 0;
  std::thread _thread;
};

void gather(const test::LocalService& service, int people, int speakers) {
  Tallies tallies;
  std::vector<std::shared_ptr<Person>> crowd;
  const double cpuBefore = cpuSeconds();
  const auto start = Clock::now();
  for (int i = 0; i < people; ++i) {
    auto person = std::make_shared<Person>(tallies);
    person->meeting = Kestrova::initMeeting({.meetingId = "crowd",
                                             .participantId = std::to_string(i),
                                             .micEnabled = true,
                                             .customAudioTrack = person->sound->makeStream(),
                                             .signalingBaseUrl = service.address()});
    person->meeting->addEventListener(person);
    person->meeting->join();
    const std::vector<std::int16_t> block(160, 1000);
    if (i < speakers) person->sound->push({block.data(), 16'000, 1, 160});
    crowd.push_back(std::move(person));
    if (!tallies.joined.reaches(i + 1, kPatience)) {
      std::printf("a join did not come through\n");
      std::exit(1);
    }
  }
  const int expected = people * (people - 1);
  tallies.streams.reaches(expected, kPatience);
  const auto held = footprint();
  std::printf(
      "%d people, %d sending: joined in %.1f s, CPU %.1f s; %d of %d streams, %d threads, "
      "%.0f MB\n",
      people, speakers, msSince(start) / 1000, cpuSeconds() - cpuBefore, tallies.streams.count(),
      expected, held.threads, held.residentMb);

  MainQueueWatch watch;
  const double cpuAtLeave = cpuSeconds();
  const auto leaving = Clock::now();
  for (const auto& person : crowd) person->meeting->leave();
  tallies.left.reaches(people, kPatience);
  const double took = msSince(leaving);
  const double waited = watch.longestMs();
  std::this_thread::sleep_for(kAftermath);
  std::printf(
      "left: %d of them within %.0f ms, CPU %.2f s until some seconds later; the main queue kept "
      "work waiting for %.1f ms at most\n",
      tallies.left.count(), took, cpuSeconds() - cpuAtLeave, waited);
}

std::string voice(int number) {
  return R"({"mid":"m)" + std::to_string(number) +
         R"(","codecs":[{"mimeType":"audio/opus","payloadType":100,"clockRate":48000,"channels":2,)"
         R"("parameters":{},"rtcpFeedback":[]}],"headerExtensions":[],"encodings":[{"ssrc":)" +
         std::to_string(5000 + number) + R"(}],"rtcp":{"cname":"c"}})";
}

/// A transport that is made right afterwards waits for the engine to be done with the closed one.
void closeOne() {
  const auto device = test::loadedDevice();
  std::vector<double> caller, engine, alone;
  for (int round = 0; round < 5; ++round) {
    const auto transport = device->createReceiveTransport(test::deadTransport());
    for (int i = 0; i < kStreams; ++i)
      transport->consume("c" + std::to_string(i), "p", MediaKind::audio, voice(i), "{}");
    auto start = Clock::now();
    device->createReceiveTransport(test::deadTransport());
    alone.push_back(msSince(start));
    start = Clock::now();
    transport->close();
    caller.push_back(msSince(start));
    device->createReceiveTransport(test::deadTransport());
    engine.push_back(msSince(start));
  }
  const auto shown = [](const char* what, const std::vector<double>& values) {
    const auto spread = spreadOf(values);
    std::printf("  %-44s %6.2f ms (%.2f to %.2f)\n", what, spread.median, spread.low, spread.high);
  };
  std::printf("closing a transport of %d streams\n", kStreams);
  shown("the caller's thread", caller);
  shown("until another transport was made", engine);
  shown("making that one without a close before", alone);
}

}  // namespace
}  // namespace kestrova::bench

int main(int count, char** arguments) {
  using namespace kestrova;
  const int people = count > 1 ? std::atoi(arguments[1]) : 50;
  const int speakers = count > 2 ? std::atoi(arguments[2]) : 0;
  if (people < 1 || speakers < 0) {
    std::fprintf(stderr, "usage: bench_density [people] [speakers]\n");
    return 1;
  }
  Kestrova::setLogLevel(LogLevel::none);
  // The transports' own test support brings a smaller platform, which must not stay.
  Platform platform = *Platform::current();
  test::installPlatform();
  Platform::install(std::move(platform));
  Kestrova::configureCapture({.camera = "none", .microphone = "none", .speaker = "none"});

  std::printf("load at the start: %.1f\n", bench::machineLoad());
  bench::closeOne();
  const test::LocalService service;
  Kestrova::config(service.token());
  bench::gather(service, people, speakers);
}
