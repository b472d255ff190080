#pragma once

#include <memory>

namespace kestrova {

class AICharacter;
class MediaStream;
struct CharacterMessage;
struct CharacterStateChange;

/// What happens to one AI character. All operations are called on the main queue and have empty
/// defaults.
class CharacterEventListener {
public:
  virtual ~CharacterEventListener() = default;

  virtual void onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                               const std::shared_ptr<AICharacter>& character) {
    (void)stream, (void)character;
  }
  virtual void onStreamDisabled(const std::shared_ptr<MediaStream>& stream,
                                const std::shared_ptr<AICharacter>& character) {
    (void)stream, (void)character;
  }
  virtual void onCharacterJoined(const std::shared_ptr<AICharacter>& character) { (void)character; }
  virtual void onCharacterLeft(const std::shared_ptr<AICharacter>& character) { (void)character; }
  virtual void onCharacterMessage(const CharacterMessage& message) { (void)message; }
  virtual void onCharacterStateChanged(const CharacterStateChange& change) { (void)change; }
};

}  // namespace kestrova
