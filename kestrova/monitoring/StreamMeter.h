#pragma once

#include <kestrova/media/StreamMetrics.h>
#include <kestrova/platform/Values.h>

#include <cstdint>
#include <map>
#include <string>

namespace kestrova {

/// Reads the present numbers of every stream of one transport out of the engine's statistics. One
/// thread at a time.
class StreamMeter {
public:
  /// By the id of the track. `now` in milliseconds since 1970.
  std::map<std::string, StreamMetrics> measure(const List& raw, std::int64_t now);

private:
  struct Totals {
    double bytes = 0;
    double frames = 0;
    double packets = 0;
    double packetsLost = 0;
  };
  using Entries = std::map<std::string, const Dictionary*, std::less<>>;

  void addReceived(StreamMetrics& metrics, const Dictionary& stat, double elapsedMs);
  void addSent(StreamMetrics& metrics, const Dictionary& stat, const Dictionary* remote,
               double elapsedMs);
  /// What the counters of this SSRC grew by. They may have started over.
  Totals growth(const Dictionary& stat, Totals now);

  std::int64_t _measuredAt = 0;
  std::map<std::int64_t, Totals> _totals;  // by SSRC
  std::map<std::int64_t, Totals> _next;
};

}  // namespace kestrova
