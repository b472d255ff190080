#pragma once

#include <kestrova/model/MeetingTypes.h>
#include <kestrova/model/MetaData.h>
#include <kestrova/platform/ValuesFwd.h>

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
  MetaData metaData;
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

}  // namespace kestrova
