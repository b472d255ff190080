#include "CharacterWatch.h"

#include <kestrova/platform/Values.h>

#include "Text.h"
#include <utility>

namespace kestrova::meet {
namespace {

std::string stateWord(CharacterState state) {
  switch (state) {
    case CharacterState::characterSpeaking:
      return "speaking";
    case CharacterState::characterThinking:
      return "thinking";
    case CharacterState::characterListening:
      break;
  }
  return "listening";
}

}  // namespace

std::shared_ptr<CharacterWatch> CharacterWatch::make(const std::shared_ptr<AICharacter>& character,
                                                     MediaWatch::Teller tell) {
  const auto id = character->characterId();
  std::shared_ptr<CharacterWatch> self(
      new CharacterWatch(MediaWatch::make({.id = id, .name = id}, std::move(tell))));
  self->came(character);
  return self;
}

void CharacterWatch::came(const std::shared_ptr<AICharacter>& character) {
  const bool isNew = !isHere();
  if (_character != character) {
    _media->clear();
    character->addEventListener(shared_from_this());
    _character = character;
  }
  takeName();
  if (isNew) _media->tell("characterJoined", {}, name() + " (a character) is there");
  for (const auto& [id, stream] : character->streams()) _media->add(stream);
}

void CharacterWatch::left() {
  _character.reset();
  _state = CharacterState::characterListening;
  _media->clear();
  _media->tell("characterLeft", {}, name() + " (a character) left");
}

/// The service may give it one when it is there already.
void CharacterWatch::takeName() {
  if (!_character) return;
  if (auto name = _character->displayName(); !name.empty()) _media->rename(std::move(name));
}

PersonRow CharacterWatch::row() const {
  auto row = _media->row(isHere());
  row.character = true;
  row.doing = isHere() ? stateWord(_state) : "";
  row.lastMessage = _lastMessage;
  return row;
}

void CharacterWatch::stateChanged(CharacterState state) {
  takeName();
  _state = state;
  _media->tell("characterState", {{"state", text(state)}}, name() + " is " + stateWord(state));
}

void CharacterWatch::messageCame(const CharacterMessage& message) {
  takeName();
  const bool own = message.participantId == id();
  if (own) _lastMessage = message.text;
  const auto& speaker =
      message.participantName.empty() ? message.participantId : message.participantName;
  _media->tell("characterMessage",
               {{"text", message.text},
                {"participantId", message.participantId},
                {"participantName", message.participantName},
                {"timestamp", message.timestamp}},
               clockTime(message.timestamp) + " " + (own ? name() : speaker + " @" + name()) +
                   ": " + message.text);
}

void CharacterWatch::onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                                     const std::shared_ptr<AICharacter>&) {
  _media->add(stream);
}

void CharacterWatch::onStreamDisabled(const std::shared_ptr<MediaStream>& stream,
                                      const std::shared_ptr<AICharacter>&) {
  _media->remove(stream);
}

}  // namespace kestrova::meet
