#pragma once

namespace kestrova {

/// What this process takes of the machine.
struct ProcessUsage {
  /// Of all its threads since the look before, in percent of one processor.
  int cpuPercent = 0;
  /// Resident, in units of 1048576 bytes.
  double memoryMegabytes = 0;
};

}  // namespace kestrova
