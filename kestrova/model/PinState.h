#pragma once

#include <kestrova/platform/EnumTexts.h>
#include <kestrova/platform/ValuesFwd.h>

#include <optional>
#include <string_view>

namespace kestrova {

/// What is pinned of a participant.
struct ParticipantPinState {
  std::optional<bool> cam;
  std::optional<bool> share;

  static ParticipantPinState fromJson(const Dictionary& json);
  Dictionary toJson() const;
  bool operator==(const ParticipantPinState&) const = default;
};

enum class PinType { SHARE_AND_CAM, CAM, SHARE };
inline constexpr EnumTexts<PinType, 3> pinTypeTexts{{"SHARE_AND_CAM", "CAM", "SHARE"}};
constexpr std::string_view text(PinType type) {
  return pinTypeTexts(type);
}

}  // namespace kestrova
