#pragma once

#include <kestrova/session/AICharacter.h>
#include <kestrova/session/CharacterEventListener.h>

#include "MediaWatch.h"
#include <memory>
#include <string>

namespace kestrova::meet {

/// Watches one AI character for as long as the program runs. Main queue only.
class CharacterWatch final : public CharacterEventListener,
                             public std::enable_shared_from_this<CharacterWatch> {
public:
  using Clock = MediaWatch::Clock;

  /// Of a character that has just come.
  static std::shared_ptr<CharacterWatch> make(const std::shared_ptr<AICharacter>& character,
                                              MediaWatch::Teller tell);

  /// It may come again, as another object of the same id.
  void came(const std::shared_ptr<AICharacter>& character);
  void left();
  bool isHere() const { return _character != nullptr; }
  /// Nothing once it has left.
  const std::shared_ptr<AICharacter>& character() const { return _character; }
  const std::string& id() const { return _media->id(); }
  const std::string& name() const { return _media->name(); }
  CharacterState state() const { return _state; }

  void measure(Clock::time_point now) { _media->measure(now); }
  PersonRow row() const;
  RemoteSummary summary(Clock::time_point joinStarted) const {
    return _media->summary(joinStarted);
  }

  void stateChanged(CharacterState state);
  /// Something that it said or was told.
  void messageCame(const CharacterMessage& message);

  void onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                       const std::shared_ptr<AICharacter>& character) override;
  void onStreamDisabled(const std::shared_ptr<MediaStream>& stream,
                        const std::shared_ptr<AICharacter>& character) override;

private:
  explicit CharacterWatch(std::shared_ptr<MediaWatch> media) : _media(std::move(media)) {}
  void takeName();

  const std::shared_ptr<MediaWatch> _media;
  std::shared_ptr<AICharacter> _character;
  CharacterState _state = CharacterState::characterListening;
  std::string _lastMessage;
};

}  // namespace kestrova::meet
