#include <kestrova/session/CharacterMulticasteDelegate.h>

namespace kestrova {

void CharacterMulticasteDelegate::onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                                                  const std::shared_ptr<AICharacter>& character) {
  multicastDelegate.invoke([&](auto& listener) { listener.onStreamEnabled(stream, character); });
}

void CharacterMulticasteDelegate::onStreamDisabled(const std::shared_ptr<MediaStream>& stream,
                                                   const std::shared_ptr<AICharacter>& character) {
  multicastDelegate.invoke([&](auto& listener) { listener.onStreamDisabled(stream, character); });
}

void CharacterMulticasteDelegate::onCharacterJoined(const std::shared_ptr<AICharacter>& character) {
  multicastDelegate.invoke([&](auto& listener) { listener.onCharacterJoined(character); });
}

void CharacterMulticasteDelegate::onCharacterLeft(const std::shared_ptr<AICharacter>& character) {
  multicastDelegate.invoke([&](auto& listener) { listener.onCharacterLeft(character); });
}

void CharacterMulticasteDelegate::onCharacterMessage(const CharacterMessage& message) {
  multicastDelegate.invoke([&](auto& listener) { listener.onCharacterMessage(message); });
}

void CharacterMulticasteDelegate::onCharacterStateChanged(const CharacterStateChange& change) {
  multicastDelegate.invoke([&](auto& listener) { listener.onCharacterStateChanged(change); });
}

}  // namespace kestrova
