#pragma once

#include <kestrova/inspector/RecordTypes.h>

namespace kestrova::inspector {

/// By the clock that also stamps what the meeting tells.
Ms now();

}  // namespace kestrova::inspector
