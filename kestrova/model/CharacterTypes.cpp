#include <kestrova/model/CharacterTypes.h>
#include <kestrova/platform/Values.h>

#include <algorithm>
#include <cctype>

namespace kestrova {

std::optional<AgentState> agentStateFromText(std::string_view text) {
  std::string upper(text);
  std::transform(upper.begin(), upper.end(), upper.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return agentStateTexts.parse(upper);
}

CharacterMessage CharacterMessage::fromJson(const Dictionary& json) {
  const auto read = [&](const char* key) { return kestrova::text(json, key, ""); };
  return {read("characterId"), read("text"), read("participantId"), read("participantName"),
          read("timestamp")};
}

std::optional<CharacterStateChange> CharacterStateChange::fromJson(const Dictionary& json) {
  const auto status = characterStateTexts.parse(text(json, "status", ""));
  if (!status) return std::nullopt;
  return CharacterStateChange{text(json, "id", ""), *status};
}

}  // namespace kestrova
