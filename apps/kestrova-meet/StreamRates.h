#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace kestrova::meet {

/// How fast one stream flows, from its statistics as they are taken every second.
class StreamRates {
public:
  using Clock = std::chrono::steady_clock;
  /// What the last sample said.
  struct Rates {
    std::optional<double> kbps;
    std::optional<double> roundTripMs;
    int width = 0;  ///< of the largest layer sent
    int height = 0;
    double fps = 0;
  };

  /// \param stats JSON text of a list of webrtc-stats objects; any other text changes nothing
  void take(const std::string& stats, Clock::time_point now);
  const Rates& rates() const { return _rates; }

private:
  Rates _rates;
  double _bytes = 0;
  std::optional<Clock::time_point> _takenAt;
};

}  // namespace kestrova::meet
