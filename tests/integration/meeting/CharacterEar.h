#pragma once

#include <kestrova/session/AICharacter.h>

#include "Attendee.h"
#include <memory>
#include <string>

namespace kestrova::test {

/// Notes what happens to a character among the lines of an attendee, and listens to its voice.
class CharacterEar final : public CharacterEventListener {
public:
  explicit CharacterEar(std::weak_ptr<Attendee> attendee) : _attendee(std::move(attendee)) {}

  const std::shared_ptr<Sound> voice = std::make_shared<Sound>();

  void onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                       const std::shared_ptr<AICharacter>& character) override {
    stream->addSink(voice);
    note("voice of " + character->characterId());
  }
  void onStreamDisabled(const std::shared_ptr<MediaStream>&,
                        const std::shared_ptr<AICharacter>& character) override {
    note("no voice of " + character->characterId());
  }
  void onCharacterJoined(const std::shared_ptr<AICharacter>& character) override {
    note("character " + character->characterId());
  }
  void onCharacterLeft(const std::shared_ptr<AICharacter>& character) override {
    note("without character " + character->characterId());
  }
  void onCharacterMessage(const CharacterMessage& message) override {
    note(message.participantId + " says " + message.text);
  }
  void onCharacterStateChanged(const CharacterStateChange& change) override {
    note(change.id + " " + std::string(text(change.status)));
  }

private:
  void note(const std::string& line) {
    if (const auto attendee = _attendee.lock()) attendee->note(line);
  }

  const std::weak_ptr<Attendee> _attendee;
};

}  // namespace kestrova::test
