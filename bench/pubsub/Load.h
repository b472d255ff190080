#pragma once

#include "Crowd.h"

namespace kestrova::bench {

struct Flow {
  double rate = 0;             ///< messages a second, each delivered to all listeners
  double cpuMicroseconds = 0;  ///< of this process, for a message: one publish, all deliveries
};
/// As many messages as go through while a bounded number is on its way.
Flow flowOf(Crowd& crowd, double seconds);

struct Delays {
  double median = 0;   ///< ms from the call to a listener
  double slowest = 0;  ///< that of one in a hundred is longer
};
/// At 1000 messages a second.
Delays delaysOf(Crowd& crowd, double seconds);

}  // namespace kestrova::bench
