#include <kestrova/session/CharacterEvents.h>

#include <utility>

namespace kestrova {
namespace {

class CharacterEventsListener final : public CharacterEventListener {
public:
  explicit CharacterEventsListener(CharacterEvents events) : _events(std::move(events)) {}

  void onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                       const std::shared_ptr<AICharacter>& character) override {
    if (_events.onStreamEnabled) _events.onStreamEnabled(stream, character);
  }
  void onStreamDisabled(const std::shared_ptr<MediaStream>& stream,
                        const std::shared_ptr<AICharacter>& character) override {
    if (_events.onStreamDisabled) _events.onStreamDisabled(stream, character);
  }
  void onCharacterJoined(const std::shared_ptr<AICharacter>& character) override {
    if (_events.onCharacterJoined) _events.onCharacterJoined(character);
  }
  void onCharacterLeft(const std::shared_ptr<AICharacter>& character) override {
    if (_events.onCharacterLeft) _events.onCharacterLeft(character);
  }
  void onCharacterMessage(const CharacterMessage& message) override {
    if (_events.onCharacterMessage) _events.onCharacterMessage(message);
  }
  void onCharacterStateChanged(const CharacterStateChange& change) override {
    if (_events.onCharacterStateChanged) _events.onCharacterStateChanged(change);
  }

private:
  const CharacterEvents _events;
};

}  // namespace

std::shared_ptr<CharacterEventListener> makeListener(CharacterEvents events) {
  return std::make_shared<CharacterEventsListener>(std::move(events));
}

}  // namespace kestrova
