#pragma once

#include <vector>

namespace kestrova::bench {

/// The processor time that this process has used, in seconds; its children's is not in it.
double cpuSeconds();

/// What this process holds at the moment.
struct Footprint {
  double residentMb = 0;
  int threads = 0;
};
Footprint footprint();

/// The machine's load average of the last minute.
double machineLoad();

struct Spread {
  double low = 0;
  double median = 0;
  double high = 0;
};
/// All 0 without values.
Spread spreadOf(std::vector<double> values);

}  // namespace kestrova::bench
