#pragma once

#include <kestrova/realtime/PubSubDeliveries.h>

namespace kestrova::bench {

/// What may wait for the main queue of one meeting.
inline constexpr double kMostWaitingMb = PubSubDeliveries::mostWaitingBytes / 1e6;

/// By how much this process's resident memory grows at the most from here on.
class PeakWatch {
public:
  PeakWatch();
  double grownMb() const;
  /// Returns when memory has stopped to grow for a while, or after some seconds.
  void settle() const;

private:
  double _before;
};

}  // namespace kestrova::bench
