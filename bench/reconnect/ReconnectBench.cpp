// How long media stays away after a dropped signalling connection has come back. The waits that the
// protocol states (before each attempt, and before the entry request) are told apart from what the
// library, the service and the engine take.

#include <kestrova/session/Kestrova.h>

#include "LocalService.h"
#include "Times.h"
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace kestrova {
namespace {

using bench::Clock;
using bench::ms;
using bench::Times;
constexpr double settleMs = 100;
constexpr int drops = 8;

class Eye final : public VideoSink {
public:
  Eye(Times& times, std::string what) : _times(times), _what(std::move(what)) {}
  void onFrame(const VideoFrame&) override { _times.mark(_what); }

private:
  Times& _times;
  const std::string _what;
};

/// One person: marks states, and the pictures of each new stream of the other.
class Person final : public MeetingEventListener,
                     public ParticipantEventListener,
                     public std::enable_shared_from_this<Person> {
public:
  Person(Times& times, std::string name) : _times(times), _name(std::move(name)) {}

  /// Pictures are marked with the round in which their stream came.
  std::atomic<int> round{0};

  void onMeetingJoined(const std::optional<std::string>&) override {
    _times.mark(_name + " joined");
  }
  void onMeetingStateChanged(MeetingState state) override {
    _times.mark(_name + " " + std::string(name(state)));
  }
  void onParticipantJoined(const std::shared_ptr<Participant>& other) override {
    other->addEventListener(shared_from_this());
  }
  void onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                       const std::shared_ptr<Participant>&) override {
    const auto track = stream->videoTrack();
    if (!track) return;
    _eye = std::make_shared<Eye>(_times, _name + " sees " + std::to_string(round));
    track->addSink(_eye);
  }

private:
  Times& _times;
  const std::string _name;
  std::shared_ptr<Eye> _eye;
};

std::shared_ptr<Meeting> enter(const test::LocalService& service, const std::string& id,
                               const std::shared_ptr<Person>& person) {
  auto meeting = Kestrova::initMeeting({.meetingId = "bench",
                                        .participantId = id,
                                        .participantName = id,
                                        .micEnabled = true,
                                        .webcamEnabled = true,
                                        .signalingBaseUrl = service.address()});
  meeting->addEventListener(person);
  meeting->join();
  return meeting;
}

void show(const char* what, std::vector<double> values) {
  std::sort(values.begin(), values.end());
  std::printf("%-58s median %6.0f ms (%.0f to %.0f)\n", what, values[values.size() / 2],
              values.front(), values.back());
}

}  // namespace
}  // namespace kestrova

int main() {
  using namespace kestrova;
  Kestrova::setLogLevel(LogLevel::none);
  Kestrova::configureCapture({.camera = "pattern", .microphone = "tone", .speaker = "none"});
  const test::LocalService service;
  Kestrova::config(service.token());
  Times times;
  const auto ada = std::make_shared<Person>(times, "ada");
  const auto grace = std::make_shared<Person>(times, "grace");
  const auto here = enter(service, "ada", ada);
  const auto there = enter(service, "grace", grace);
  times.await("ada sees 0");
  times.await("grace sees 0");

  std::vector<double> waited, received, sent;
  for (int i = 1; i <= drops; ++i) {
    ada->round = grace->round = i;
    times.restart();
    service.control("dropSocket", {{"roomId", "bench"}, {"peerId", "ada"}});
    const auto lost = times.await("ada RECONNECTING");
    const auto back = times.await("ada CONNECTED");
    waited.push_back(ms(lost, back));
    received.push_back(ms(back, times.await("ada sees " + std::to_string(i))));
    sent.push_back(ms(back, times.await("grace sees " + std::to_string(i))));
  }
  std::printf("%d drops of one participant's connection\n", drops);
  show("stated waits: drop to entered again", waited);
  std::printf("  of it between the return and the entry request: %.0f ms\n", settleMs);
  show("entered again to the first picture received", received);
  show("entered again to the first picture at the other end", sent);
  here->leave();
  there->leave();
}
