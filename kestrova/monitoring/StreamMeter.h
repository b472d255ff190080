#pragma once

#include <kestrova/media/StreamMetrics.h>
#include <kestrova/platform/Values.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace kestrova {

/// Reads the present numbers of every stream of one transport out of the engine's statistics. One
/// thread at a time.
class StreamMeter {
public:
  using Measured = std::map<std::string, StreamMetrics>;
  /// By the id of the track. Nothing at the first look, which only counts. `now` in milliseconds
  /// since 1970.
  Measured measure(const List& raw, std::int64_t now);
  /// The same while the transport can't be used: nothing flows.
  Measured rest(std::int64_t now);
  /// The next look is the first.
  void reset();

private:
  struct Totals {
    double bytes = 0;
    double frames = 0;
    double packets = 0;
    double packetsLost = 0;
  };
  using Entries = std::unordered_map<std::string_view, const Dictionary*>;

  void addReceived(StreamMetrics& metrics, const Dictionary& stat, double elapsedMs);
  void addSent(StreamMetrics& metrics, const Dictionary& stat, const Dictionary* remote,
               double elapsedMs);
  /// What the counters of this SSRC grew by. They may have started over.
  Totals growth(const Dictionary& stat, Totals now);

  std::optional<double> _measuredAt;  // by the engine's clock
  Measured _last;
  std::map<std::int64_t, Totals> _totals;  // by SSRC
  std::map<std::int64_t, Totals> _next;
};

}  // namespace kestrova
