#pragma once

#include <kestrova/platform/ProcessUsage.h>

namespace kestrova {

/// Thread-safe. The first call looks back to the start of the process; calls that follow each other
/// within 100 ms get the same percentage.
ProcessUsage processUsage();

}  // namespace kestrova
