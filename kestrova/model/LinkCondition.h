#pragma once

#include <kestrova/platform/EnumTexts.h>

#include <string_view>

namespace kestrova {

/// What holds the sent picture back.
enum class QualityLimitationType { CPU, BANDWIDTH, CONGESTION };
enum class QualityLimitationState { DETECTED, RESOLVED };

/// How a received stream flows.
enum class StreamState { FREEZE_DETECTED, FREEZE_RESOLVED, ACTIVE, ENDED, STUCK };
inline constexpr EnumTexts<StreamState, 5> streamStateTexts{
    {"FREEZE_DETECTED", "FREEZE_RESOLVED", "ACTIVE", "ENDED", "STUCK"}};

/// The cases' names.
inline constexpr EnumTexts<QualityLimitationType, 3> qualityLimitationTypeTexts{
    {"CPU", "BANDWIDTH", "CONGESTION"}};
inline constexpr EnumTexts<QualityLimitationState, 2> qualityLimitationStateTexts{
    {"DETECTED", "RESOLVED"}};
constexpr std::string_view text(QualityLimitationType type) {
  return qualityLimitationTypeTexts(type);
}
constexpr std::string_view text(QualityLimitationState state) {
  return qualityLimitationStateTexts(state);
}
constexpr std::string_view text(StreamState state) {
  return streamStateTexts(state);
}

}  // namespace kestrova
