#pragma once

#include <kestrova/session/CharacterEventListener.h>
#include <kestrova/session/MulticastDelegate.h>

namespace kestrova {

/// Every listener of one object behind a single listener. Its operations call each member in turn,
/// on the calling thread, which must be the main queue's.
class CharacterMulticasteDelegate final : public CharacterEventListener {
public:
  void add(const std::shared_ptr<CharacterEventListener>& listener) {
    multicastDelegate.add(listener);
  }
  void remove(const std::shared_ptr<CharacterEventListener>& listener) {
    multicastDelegate.remove(listener);
  }
  void removeAll() { multicastDelegate.removeAll(); }

  void onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                       const std::shared_ptr<AICharacter>& character) override;
  void onStreamDisabled(const std::shared_ptr<MediaStream>& stream,
                        const std::shared_ptr<AICharacter>& character) override;
  void onCharacterJoined(const std::shared_ptr<AICharacter>& character) override;
  void onCharacterLeft(const std::shared_ptr<AICharacter>& character) override;
  void onCharacterMessage(const CharacterMessage& message) override;
  void onCharacterStateChanged(const CharacterStateChange& change) override;

private:
  MulticastDelegate<CharacterEventListener> multicastDelegate;
};

}  // namespace kestrova
