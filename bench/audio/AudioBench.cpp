#include <kestrova/platform/NotificationCenter.h>
#include <kestrova/platform/linux/audio/LinuxAudioSession.h>
#include <kestrova/platform/linux/audio/MicrophoneRoute.h>
#include <kestrova/platform/linux/audio/PulseConnection.h>
#include <kestrova/platform/linux/audio/PulseMicrophone.h>

#include "Process.h"
#include "PulseServer.h"
#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <mutex>
#include <optional>

// What is lost when a running microphone goes over to another one, on a sound server of its own:
// by the session, by having the server move the stream, and by stopping and starting anew. And how
// soon a device that comes or goes is told.

namespace kestrova {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
constexpr int rounds = 30;
constexpr int lowHz = 400, highHz = 1000;

double ms(Clock::duration time) {
  return std::chrono::duration<double, std::milli>(time).count();
}

/// Listens for a tone: how long nothing came, or silence, and when the tone was there.
class Ear final : public RTCAudioSource {
public:
  std::map<std::string, std::string> constraints() const override { return {}; }

  void onData(const AudioData& data) override {
    const auto now = Clock::now();
    int rises = 0;
    double energy = 0;
    for (int i = 1; i < data.frames; ++i) {
      rises += data.samples[i - 1] < 0 && data.samples[i] >= 0;
      energy += double(data.samples[i]) * data.samples[i];
    }
    std::scoped_lock held(_lock);
    _longest = std::max(_longest, now - _last);
    if (energy / data.frames > 10'000) _last = now;  // silence is no sound
    const int wanted = _wantedHz * data.frames / data.sampleRate;
    if (_wantedHz > 0 && std::abs(rises - wanted) <= 1) {
      _wantedHz = 0;
      _there.notify_all();
    }
  }

  void expect(int hz) {
    std::scoped_lock held(_lock);
    _wantedHz = hz;
    _longest = {};
  }
  /// Until the tone is there. \returns the longest time without sound
  Clock::duration await() {
    std::unique_lock held(_lock);
    if (!_there.wait_for(held, 20s, [&] { return _wantedHz == 0; })) {
      std::fputs("the other microphone is not heard\n", stderr);
      std::exit(1);
    }
    return _longest;
  }

private:
  std::mutex _lock;
  std::condition_variable _there;
  int _wantedHz = 0;
  Clock::time_point _last = Clock::now();
  Clock::duration _longest{};
};

/// Has the server move every stream that records.
void moveStreams(const std::string& source) {
  const auto until = Clock::now() + 5s;
  PulseConnection connection;
  if (!connection.openUntil(until)) return;
  std::vector<std::uint32_t> streams;
  const auto found = [](pa_context*, const pa_source_output_info* info, int end, void* out) {
    if (end || !info || std::string_view(info->name) != "Microphone") return;
    static_cast<std::vector<std::uint32_t>*>(out)->push_back(info->index);
  };
  connection.await(pa_context_get_source_output_info_list(connection.context(), found, &streams),
                   until);
  for (const auto stream : streams)
    connection.await(pa_context_move_source_output_by_name(connection.context(), stream,
                                                           source.c_str(), nullptr, nullptr),
                     until);
}

void measure(const char* what, Ear& ear, const std::function<void(const std::string&)>& change) {
  std::vector<double> gaps, delays;
  for (int i = 0; i < rounds; ++i) {
    const bool high = i % 2 == 0;
    const auto begun = Clock::now();
    ear.expect(high ? highHz : lowHz);
    change(high ? "high" : "low");
    gaps.push_back(ms(ear.await()));
    delays.push_back(ms(Clock::now() - begun));
  }
  const auto gap = bench::spreadOf(gaps);
  const auto delay = bench::spreadOf(delays);
  std::printf(
      "%-16s longest time without sound %6.1f ms (%.1f to %.1f), the other one after "
      "%6.1f ms (%.1f to %.1f)\n",
      what, gap.median, gap.low, gap.high, delay.median, delay.low, delay.high);
}

void measureChanges(PulseServer& server, AVAudioSession& session) {
  server.loadTone("low", lowHz);
  server.loadTone("high", highHz);
  const auto ear = std::make_shared<Ear>();
  auto microphone = makePulseMicrophone("low");
  if (!microphone || !microphone->start(ear)) std::exit(1);
  ear->expect(lowHz);
  ear->await();
  measure("changeMic", *ear, [&](const std::string& source) {
    for (const auto& input : session.availableInputs())
      if (input.uid == source) session.setPreferredInput(input);
  });
  MicrophoneRoute::shared().configure("high");  // what was chosen counts no more
  measure("server moves", *ear, moveStreams);
  measure("stop and start", *ear, [&](const std::string& source) {
    microphone.reset();
    microphone = makePulseMicrophone(source);
    microphone->start(ear);
  });
}

void measureRoutes(PulseServer& server) {
  std::mutex lock;
  std::condition_variable changed;
  std::optional<Clock::time_point> told;
  const auto observer = NotificationCenter::defaultCenter().addObserver(
      AVAudioSessionRouteChangeNotification, [&](const Dictionary&) {
        std::scoped_lock held(lock);
        told = Clock::now();
        changed.notify_all();
      });
  std::vector<double> delays;
  for (int i = 0; i < rounds; ++i) {
    const auto begun = Clock::now();
    const auto sink = server.loadSink("headset", 2);
    std::unique_lock held(lock);
    changed.wait_for(held, 10s, [&] { return told.has_value(); });
    delays.push_back(ms(told.value_or(Clock::time_point::max()) - begun));
    told.reset();
    held.unlock();
    server.unload(sink);
    held.lock();
    changed.wait_for(held, 10s, [&] { return told.has_value(); });
    told.reset();
  }
  const auto delay = bench::spreadOf(delays);
  std::printf(
      "a device that is plugged in is told after %.1f ms (%.1f to %.1f), its making "
      "included\n",
      delay.median, delay.low, delay.high);
}

}  // namespace
}  // namespace kestrova

int main() {
  using namespace kestrova;
  PulseServer server;
  server.start();
  server.loadSink("speaker", 2);
  const auto session = makeAudioSession();
  const auto watching = session->watchRoute();
  measureChanges(server, *session);
  measureRoutes(server);
}
