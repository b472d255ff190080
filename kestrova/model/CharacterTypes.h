#pragma once

#include <kestrova/platform/EnumTexts.h>
#include <kestrova/platform/ValuesFwd.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova {

/// What a server-side agent is doing.
enum class AgentState { IDLE, LISTENING, THINKING, SPEAKING };
inline constexpr EnumTexts<AgentState, 4> agentStateTexts{
    {"IDLE", "LISTENING", "THINKING", "SPEAKING"}};
constexpr std::string_view text(AgentState state) {
  return agentStateTexts(state);
}
/// Reads the service's text without regard to case.
std::optional<AgentState> agentStateFromText(std::string_view text);

enum class CharacterState { characterSpeaking, characterThinking, characterListening };
inline constexpr EnumTexts<CharacterState, 3> characterStateTexts{
    {"characterSpeaking", "characterThinking", "characterListening"}};
constexpr std::string_view text(CharacterState state) {
  return characterStateTexts(state);
}

/// How a character takes part. The text of each mode is its name.
enum class CharacterMode { text, coPilot, autoPilot, visionPilot };
inline constexpr EnumTexts<CharacterMode, 4> characterModeTexts{
    {"text", "coPilot", "autoPilot", "visionPilot"}};
constexpr std::string_view text(CharacterMode mode) {
  return characterModeTexts(mode);
}

/// What a character is made from. `characterId` names it; the service fills in what is left out.
struct CharacterConfig {
  std::optional<std::string> interactionId = {};  ///< goes on with an earlier conversation
  std::string characterId;
  std::optional<std::string> displayName = {};
  std::optional<std::string> characterMode = {};  ///< the text of a `CharacterMode`
  std::optional<std::string> characterRole = {};
  std::optional<std::vector<std::string>> knowledgeBases = {};
  std::optional<std::vector<std::string>> metaData = {};

  /// What the service is told; without what is not given.
  Dictionary toJson() const;
  /// Takes over what `json` has of these, each by itself; of another type or missing changes
  /// nothing.
  void update(const Dictionary& json);
};

/// Something that an AI character said or was told.
struct CharacterMessage {
  std::string characterId;
  std::string text;
  std::string participantId;
  std::string participantName;
  std::string timestamp;

  static CharacterMessage fromJson(const Dictionary& json);
};

struct CharacterStateChange {
  std::string id;
  CharacterState status = CharacterState::characterListening;

  /// Nothing for a status that is not known.
  static std::optional<CharacterStateChange> fromJson(const Dictionary& json);
};

/// A piece of what an agent said. `timestamp` is in milliseconds since 1970.
struct TranscriptionSegment {
  std::string text;
  std::int64_t timestamp = 0;
};

}  // namespace kestrova
