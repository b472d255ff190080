#pragma once

#include <kestrova/model/MeetingTypes.h>
#include <kestrova/platform/Values.h>

#include <optional>
#include <string>
#include <vector>

namespace kestrova {

/// What the service says about a person.
struct Peer {
  std::string id;
  std::string displayName;
  std::string device;
  std::optional<std::string> interactionId;
  std::optional<Dictionary> metaData;
  std::string mode;
  /// Set when a server-side agent stands behind the person.
  std::optional<std::string> agentId;

  static Peer fromJson(const Dictionary& json);
  /// The mode, with the service's default for a text that names none.
  Mode participantMode() const { return modeFromText(mode).value_or(Mode::CONFERENCE); }
};

/// Takes the service's own markers out of `data`'s "metaData", so that the application never sees
/// them; an agent's id moves to the top-level key "agentId".
void separateAgentMarkers(Dictionary& data);

/// Everybody who is in the room already, from the answer to "join".
std::vector<Peer> getParticipants(const Dictionary& joinResponse);

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
