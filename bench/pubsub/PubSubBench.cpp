// Topic messages as an application has them: one publisher and ten listeners, each in a meeting of
// its own connection. Beside them, in turns, a crowd of bare WebSockets through a relay that knows
// next to nothing, which sends the same frames, and the library through that same relay. Servers
// are other processes and not counted.
//
//   bench_pubsub [seconds of each measurement]

#include <kestrova/platform/Future.h>
#include <kestrova/platform/Queue.h>

#include "BareCrowd.h"
#include "LibraryCrowd.h"
#include "Load.h"
#include "Memory.h"
#include "Process.h"
#include "Relay.h"
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

namespace kestrova::bench {
namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRounds = 5;
constexpr auto kPatience = std::chrono::seconds(60);

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

struct Variant {
  const char* name;
  std::unique_ptr<Crowd> crowd;
  std::vector<double> rates, cpus, medians, slowest = {};
};

double medianRatio(const std::vector<double>& values, const std::vector<double>& to) {
  std::vector<double> ratios;
  for (std::size_t i = 0; i < values.size(); ++i) ratios.push_back(values[i] / to[i]);
  return spreadOf(ratios).median;
}

void compareCrowds(const test::LocalService& service, double seconds) {
  const Relay ofBare, ofLibrary;
  std::vector<Variant> variants;
  variants.push_back({"bare, through the relay", std::make_unique<BareCrowd>(ofBare.port())});
  variants.push_back({"kestrova, through the relay",
                      std::make_unique<LibraryCrowd>(service, "relayed", ofLibrary.url())});
  variants.push_back(
      {"kestrova, through the service", std::make_unique<LibraryCrowd>(service, "served")});
  for (int round = 0; round < kRounds; ++round)
    for (auto& variant : variants) {
      const auto flow = flowOf(*variant.crowd, seconds);
      variant.rates.push_back(flow.rate);
      variant.cpus.push_back(flow.cpuMicroseconds);
    }
  for (int round = 0; round < kRounds; ++round)
    for (auto& variant : variants) {
      const auto delay = delaysOf(*variant.crowd, seconds);
      variant.medians.push_back(delay.median);
      variant.slowest.push_back(delay.slowest);
    }
  std::printf("one publisher, %d listeners, %zu bytes of text, medians of %d rounds\n", kListeners,
              kMessageBytes, kRounds);
  std::printf("%-30s %8s %6s %8s %6s %14s %12s\n", "", "1/s", "ratio", "CPU us", "ratio",
              "at 1000/s: ms", "p99 ms");
  for (const auto& variant : variants)
    std::printf("%-30s %8.0f %6.2f %8.1f %6.2f %14.2f %12.2f\n", variant.name,
                spreadOf(variant.rates).median, medianRatio(variant.rates, variants[0].rates),
                spreadOf(variant.cpus).median, medianRatio(variant.cpus, variants[0].cpus),
                spreadOf(variant.medians).median, spreadOf(variant.slowest).median);
}

// ---- Memory ------------------------------------------------------------------------------------

Dictionary messages(const char* meetingId, int times, bool persist) {
  return {{"roomId", meetingId}, {"topic", kTopic},
          {"times", times},      {"persist", persist},
          {"senderId", "a bot"}, {"message", std::string(kMessageBytes, 'm')}};
}

/// While the main queue stands still, the service sends; then it goes on, and one more message
/// shows whether the connection has lived.
void blockMainQueue(const test::LocalService& service) {
  constexpr int sends = 200;
  constexpr int messagesASend = 1000;
  constexpr std::int64_t sent = sends * messagesASend + 1;
  const auto meeting = join(service, "blocked", "listener");
  std::int64_t delivered = 0;  // main queue, as all three
  std::int64_t missing = 0;
  int gaps = 0;
  std::promise<void> complete;
  const auto look = [&] {
    if (delivered + missing == sent) complete.set_value();
  };
  const auto listener = makeListener(PubSubMessageEvents{.onMessageReceived =
                                                             [&](const auto&) {
                                                               ++delivered;
                                                               look();
                                                             },
                                                         .onMessageDrop =
                                                             [&](const auto& info) {
                                                               ++gaps;
                                                               missing += info.droppedCount;
                                                               look();
                                                             }});
  asFuture(meeting->pubsub()->subscribe(kTopic, listener, {.oldMessageLimit = 0})).get();
  std::promise<void> gate;
  MainQueue::shared().async([opened = gate.get_future().share()] { opened.wait(); });
  const PeakWatch peak;
  for (int i = 0; i < sends; ++i)
    service.control("publish", messages("blocked", messagesASend, false));
  peak.settle();
  const double grown = peak.grownMb();
  gate.set_value();
  service.control("publish", messages("blocked", 1, false));
  const bool whole = complete.get_future().wait_for(kPatience) == std::future_status::ready;
  std::printf(
      "a blocked main queue while %lld messages come: %.1f MB more at the peak, of which %.0f may "
      "wait: %.2f; then %lld delivered and %lld told as lost in %d gaps: %s\n",
      static_cast<long long>(sent), grown, kMostWaitingMb, grown / kMostWaitingMb,
      static_cast<long long>(delivered), static_cast<long long>(missing), gaps,
      whole ? "all of them" : "NOT ALL OF THEM");
  leave(meeting);
}

void replay(const test::LocalService& service) {
  constexpr int stored = 10'000;
  const auto meeting = join(service, "stored", "listener");
  service.control("publish", messages("stored", stored, true));
  std::size_t got = 0;
  std::promise<void> last;
  const auto listener = makeListener(PubSubMessageEvents{
      .onOldMessagesReceived = [&](const auto& old, const PubSubHistoryInfo& info) {
        got += old.size();
        if (info.isLast) last.set_value();
      }});
  const PeakWatch peak;
  const auto start = Clock::now();
  asFuture(meeting->pubsub()->subscribe(kTopic, listener)).get();
  const double agreed = msSince(start);
  last.get_future().wait_for(kPatience);
  const double took = msSince(start);
  std::printf(
      "a replay of %zu stored messages: the first after %.0f ms, all after %.0f ms; %.1f MB more "
      "at the peak, %.1f times their text\n",
      got, agreed, took, peak.grownMb(), peak.grownMb() * 1e6 / (stored * kMessageBytes));
  leave(meeting);
}

}  // namespace
}  // namespace kestrova::bench

int main(int count, char** arguments) {
  using namespace kestrova;
  const double seconds = count > 1 ? std::atof(arguments[1]) : 1;
  if (seconds <= 0) {
    std::fprintf(stderr, "usage: bench_pubsub [seconds of each measurement]\n");
    return 1;
  }
  Kestrova::setLogLevel(LogLevel::none);
  Kestrova::configureCapture({.camera = "none", .microphone = "none", .speaker = "none"});
  std::printf("load at the start: %.1f\n", bench::machineLoad());
  const test::LocalService service;
  Kestrova::config(service.token());
  bench::replay(service);
  bench::blockMainQueue(service);
  bench::compareCrowds(service, seconds);
}
