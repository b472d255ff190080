#pragma once

#include <kestrova/platform/ProcessUsage.h>

namespace kestrova {

/// Thread-safe. The first call looks back to when the library was loaded; calls that follow each
/// other within 100 ms get the same percentage.
ProcessUsage processUsage();

}  // namespace kestrova
