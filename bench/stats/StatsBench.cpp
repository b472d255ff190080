#include <kestrova/monitoring/Collector.h>
#include <kestrova/monitoring/LinkConditions.h>
#include <kestrova/monitoring/StatsFiling.h>
#include <kestrova/monitoring/StreamMeter.h>

#include "Endpoint.h"
#include "Process.h"
#include "Sfu.h"
#include <cstdio>
#include <thread>

// What a look at a transport costs on top of the engine's own statistics, with 1 and 50 streams.

namespace kestrova {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

/// The engine gives a report that is younger than this a second time.
constexpr auto engineCache = 60ms;
constexpr int looks = 100;

double msSince(Clock::time_point begin) {
  return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

/// What becomes of each look, until its memory is given back.
class Desk {
public:
  explicit Desk(const std::vector<std::shared_ptr<Consumer>>& consumers) {
    for (const auto& consumer : consumers)
      _tracks.push_back({.trackId = consumer->track()->id(),
                         .streamId = consumer->id(),
                         .peerId = consumer->id(),
                         .type = MediaType::video,
                         .kind = "video"});
  }
  void workOff(const List& raw, std::int64_t now) {
    const auto report = _collector.collectStats(raw);
    const auto entries = _filing.fileReceived(report, _tracks);
    _meter.measure(raw, now);
    _conditions.observeStatsOfSendTransport(raw);
    _conditions.observeStatsOfRecvTransport(entries, static_cast<double>(now));
  }

private:
  std::vector<KnownTrack> _tracks;
  Collector _collector{
      {.probeId = "bench", .roomId = "room", .name = "RoomMetrics", .peerId = "me"}};
  StatsFiling _filing;
  StreamMeter _meter;
  LinkConditions _conditions;
};

void look(test::Endpoint& endpoint, const std::vector<std::shared_ptr<Consumer>>& consumers) {
  Desk desk(consumers);
  std::vector<double> engine;
  std::vector<double> text;
  std::vector<double> whole;
  std::size_t bytes = 0;
  for (int i = 0; i < looks; ++i) {
    std::this_thread::sleep_for(engineCache);
    auto begin = Clock::now();
    bytes = test::await(endpoint.receiving->stats()).size();
    engine.push_back(msSince(begin));
    begin = Clock::now();
    test::await(endpoint.receiving->stats());
    text.push_back(msSince(begin));

    std::this_thread::sleep_for(engineCache);
    begin = Clock::now();
    desk.workOff(test::await(endpoint.receiving->statsList()), i * 2000);
    whole.push_back(msSince(begin));
  }
  const double own = bench::spreadOf(engine).median;
  const double written = bench::spreadOf(text).median;
  const double look = bench::spreadOf(whole).median;
  std::printf(
      "%3d streams: engine %.2f ms, of which %.2f ms write %zu kB of text; a look %.2f ms, which "
      "is "
      "%.2fx, and %.2fx of what the engine takes without the text\n",
      static_cast<int>(consumers.size()), own, written, bytes / 1024, look, look / own,
      look / (own - written));
}

}  // namespace
}  // namespace kestrova

int main() {
  using namespace kestrova;
  test::installPlatform();
  test::Sfu server;
  auto endpoint = test::Endpoint::make(server);
  ProducerOptions options;
  options.track = endpoint->cameraTrack(320, 180);
  const auto camera = endpoint->produce(std::move(options));
  std::vector<std::shared_ptr<Consumer>> consumers;
  for (const int streams : {1, 50}) {
    while (static_cast<int>(consumers.size()) < streams)
      consumers.push_back(endpoint->consume(camera->id()));
    std::this_thread::sleep_for(2s);
    look(*endpoint, consumers);
  }
}
