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

namespace {

void add(Dictionary& json, const char* key, const std::optional<std::string>& text) {
  if (text) json[key] = *text;
}

void add(Dictionary& json, const char* key, const std::optional<std::vector<std::string>>& texts) {
  if (texts) json[key] = List(texts->begin(), texts->end());
}

void take(std::optional<std::string>& field, const Dictionary& json, const char* key) {
  if (auto given = text(json, key)) field = std::move(given);
}

void take(std::optional<std::vector<std::string>>& field, const Dictionary& json, const char* key) {
  const auto* entries = list(json, key);
  if (!entries) return;
  field.emplace();
  for (const auto& entry : *entries)
    if (entry.is_string()) field->emplace_back(entry.get_string());
}

}  // namespace

Dictionary CharacterConfig::toJson() const {
  Dictionary json{{"characterId", characterId}};
  add(json, "interactionId", interactionId);
  add(json, "displayName", displayName);
  add(json, "characterMode", characterMode);
  add(json, "characterRole", characterRole);
  add(json, "knowledgeBases", knowledgeBases);
  add(json, "metaData", metaData);
  return json;
}

void CharacterConfig::update(const Dictionary& json) {
  if (auto id = text(json, "characterId"); id && !id->empty()) characterId = std::move(*id);
  take(interactionId, json, "interactionId");
  take(displayName, json, "displayName");
  take(characterMode, json, "characterMode");
  take(characterRole, json, "characterRole");
  take(knowledgeBases, json, "knowledgeBases");
  take(metaData, json, "metaData");
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
