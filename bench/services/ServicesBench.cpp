// How long a character takes to be heard and to fall silent, how long a relay takes to its first
// picture, and what a character costs that only listens. All on loopback, against the local
// service.

#include <kestrova/kestrova.h>

#include "LocalService.h"
#include "Process.h"
#include "Times.h"
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace kestrova {
namespace {

using bench::Clock;
using bench::ms;
using bench::Times;

constexpr int rounds = 15;
constexpr int idleCharacters = 18;
constexpr std::chrono::seconds idleTime{5};

/// Notes the first picture, the first loud sound, and when the last was heard.
class Senses final : public VideoSink, public AudioSink {
public:
  explicit Senses(Times& times) : _times(times) {}
  void onFrame(const VideoFrame&) override { _times.mark("picture"); }
  void onData(const AudioData& data) override {
    const auto* end = data.samples + data.frames * data.channels;
    if (std::none_of(data.samples, end, [](int sample) { return sample > 1000; })) return;
    lastLoud = Clock::now();
    _times.mark("sound");
  }
  std::atomic<Clock::time_point> lastLoud{};

private:
  Times& _times;
};

std::shared_ptr<Meeting> enter(const test::LocalService& service, const std::string& meetingId,
                               const std::string& id, bool media, Times& times,
                               std::vector<ListenerHandle>& listening) {
  auto meeting = Kestrova::initMeeting({.meetingId = meetingId,
                                        .participantId = id,
                                        .participantName = id,
                                        .micEnabled = media,
                                        .webcamEnabled = media,
                                        .signalingBaseUrl = service.address()});
  listening.push_back(meeting->listen(MeetingEvents{
      .onMeetingJoined = [&times, id](const auto&) { times.mark(id + " joined"); },
  }));
  meeting->join();
  times.await(id + " joined");
  return meeting;
}

void show(const char* what, std::vector<double> values) {
  const auto spread = bench::spreadOf(std::move(values));
  std::printf("%-62s median %6.1f ms (%.1f to %.1f)\n", what, spread.median, spread.low,
              spread.high);
}

void characters(const test::LocalService& service) {
  Times times;
  std::vector<ListenerHandle> listening;
  const auto senses = std::make_shared<Senses>(times);
  const auto meeting = enter(service, "voices", "ada", false, times, listening);
  const auto aida = meeting->createCharacter({.characterId = "aida"});
  listening.push_back(aida->listen(CharacterEvents{
      .onStreamEnabled =
          [&](const auto& stream, const auto&) {
            stream->addSink(std::shared_ptr<AudioSink>(senses));
            times.mark("voice");
          },
      .onCharacterStateChanged =
          [&](const CharacterStateChange& change) { times.mark(std::string(text(change.status))); },
  }));
  aida->join();
  times.await("voice");
  service.control(
      "setCharacter",
      {{"roomId", "voices"}, {"characterId", "aida"}, {"thinkMs", 0}, {"speakMs", 60'000}});
  std::vector<double> told, heard, silent;
  for (int i = 0; i < rounds; ++i) {
    times.restart();
    const auto asked = Clock::now();
    aida->sendMessage("hello");
    told.push_back(ms(asked, times.await("characterSpeaking")));
    heard.push_back(ms(asked, times.await("sound")));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const auto interrupted = Clock::now();
    aida->interrupt();
    times.await("characterListening");
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    silent.push_back(std::max(0.0, ms(interrupted, senses->lastLoud)));
  }
  show("sendMessage to the state characterSpeaking", told);
  show("sendMessage to the first decoded sample of the voice", heard);
  show("interrupt to the last loud sample of the voice (goal: 200 ms)", silent);
  meeting->leave();
}

double cpuPercentWhileIdle() {
  const auto before = bench::cpuSeconds();
  std::this_thread::sleep_for(idleTime);
  return 100 * (bench::cpuSeconds() - before) / static_cast<double>(idleTime.count());
}

void idle(const test::LocalService& service) {
  Times times;
  std::vector<ListenerHandle> listening;
  const auto meeting = enter(service, "quiet", "ada", false, times, listening);
  const auto first = meeting->createCharacter({.characterId = "first"});
  listening.push_back(first->listen(
      CharacterEvents{.onStreamEnabled = [&](const auto&, const auto&) { times.mark("first"); }}));
  first->join();
  times.await("first");  // it brings the whole road of received sound with it
  const auto footprintBefore = bench::footprint();
  const double cpuBefore = cpuPercentWhileIdle();
  std::vector<std::shared_ptr<AICharacter>> all;
  for (int i = 0; i < idleCharacters; ++i) {
    const auto id = "idle" + std::to_string(i);
    all.push_back(meeting->createCharacter({.characterId = id}));
    listening.push_back(all.back()->listen(CharacterEvents{
        .onStreamEnabled = [&times, id](const auto&, const auto&) { times.mark(id); }}));
    all.back()->join();
  }
  for (int i = 0; i < idleCharacters; ++i) times.await("idle" + std::to_string(i));
  const auto footprint = bench::footprint();
  const double cpu = cpuPercentWhileIdle();
  std::printf(
      "an idle character more, of %d: %.2f %% of a core (one alone, with all that receives "
      "sound: %.2f %%), %.2f MB, %.1f threads\n",
      idleCharacters, (cpu - cpuBefore) / idleCharacters, cpuBefore,
      (footprint.residentMb - footprintBefore.residentMb) / idleCharacters,
      static_cast<double>(footprint.threads - footprintBefore.threads) / idleCharacters);
  meeting->leave();
}

void relays(const char* label, const test::LocalService& service) {
  Times times;
  std::vector<ListenerHandle> listening;
  const auto senses = std::make_shared<Senses>(times);
  const auto ada = enter(service, "here", "ada", true, times, listening);
  const auto host = enter(service, "there", "host", false, times, listening);
  listening.push_back(ada->listen(
      MeetingEvents{.onMediaRelayStopped = [&](const auto&) { times.mark("stopped"); }}));
  listening.push_back(host->listen(MeetingEvents{
      .onParticipantJoined =
          [&](const auto& participant) {
            participant
                ->listen(ParticipantEvents{.onStreamEnabled =
                                               [&](const auto& stream, const auto&) {
                                                 stream->addSink(
                                                     std::shared_ptr<VideoSink>(senses));
                                               }})
                .detach();
          },
      .onMediaRelayRequestReceived =
          [&](const auto&, const auto&, const auto&, auto accept, auto) {
            // As a person would: what can be made ready is ready by then.
            std::this_thread::sleep_for(std::chrono::milliseconds(1500));
            times.mark("accepted");
            accept();
          }}));
  while (ada->localParticipant()->streams().size() < 2)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  std::vector<double> seen;
  for (int i = 0; i < rounds; ++i) {
    times.restart();
    ada->requestMediaRelay("there");
    const auto accepted = times.await("accepted");
    seen.push_back(ms(accepted, times.await("picture")));
    ada->stopMediaRelay("there");
    times.await("stopped");
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the last pictures
  }
  show(label, seen);
  ada->leave();
  host->leave();
}

}  // namespace
}  // namespace kestrova

int main() {
  using namespace kestrova;
  Kestrova::setLogLevel(LogLevel::none);
  Kestrova::configureCapture({.camera = "pattern", .microphone = "tone", .speaker = "none"});
  {
    const test::LocalService service;
    Kestrova::config(service.token());
    characters(service);
    idle(service);
    relays("accepting a relay to the first picture there (goal: 500 ms)", service);
  }
  const test::LocalService service({"--workers", "2"});
  Kestrova::config(service.token());
  relays("the same from one media worker to another", service);
}
