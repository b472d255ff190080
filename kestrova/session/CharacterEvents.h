#pragma once

#include <kestrova/session/CharacterEventListener.h>

#include <functional>
#include <memory>

namespace kestrova {

/// What a program wants to hear of a character, as functions instead of a class. Each has the name
/// and the arguments of its operation in `CharacterEventListener`, and is called on the main queue.
/// The names are given in this order.
struct CharacterEvents {
  std::function<void(const std::shared_ptr<MediaStream>&, const std::shared_ptr<AICharacter>&)>
      onStreamEnabled = {};
  std::function<void(const std::shared_ptr<MediaStream>&, const std::shared_ptr<AICharacter>&)>
      onStreamDisabled = {};
  std::function<void(const std::shared_ptr<AICharacter>&)> onCharacterJoined = {};
  std::function<void(const std::shared_ptr<AICharacter>&)> onCharacterLeft = {};
  std::function<void(const CharacterMessage&)> onCharacterMessage = {};
  std::function<void(const CharacterStateChange&)> onCharacterStateChanged = {};
};

/// The listener that calls these functions.
std::shared_ptr<CharacterEventListener> makeListener(CharacterEvents events);

}  // namespace kestrova
