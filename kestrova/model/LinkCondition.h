#pragma once

#include <kestrova/platform/EnumTexts.h>

namespace kestrova {

/// What holds the sent picture back.
enum class QualityLimitationType { CPU, BANDWIDTH, CONGESTION };
enum class QualityLimitationState { DETECTED, RESOLVED };

/// How a received stream flows.
enum class StreamState { FREEZE_DETECTED, FREEZE_RESOLVED, ACTIVE, ENDED, STUCK };
inline constexpr EnumTexts<StreamState, 5> streamStateTexts{
    {"FREEZE_DETECTED", "FREEZE_RESOLVED", "ACTIVE", "ENDED", "STUCK"}};

}  // namespace kestrova
