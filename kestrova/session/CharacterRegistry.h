#pragma once

#include <kestrova/session/AICharacter.h>
#include <kestrova/session/MeetingContext.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kestrova {

/// The AI characters of a meeting: those who are there, and those who were made and may come.
///
/// Events of characters that are not known are dropped. What the service tells is called on the
/// main queue; the rest on any thread.
class CharacterRegistry : public std::enable_shared_from_this<CharacterRegistry> {
public:
  using Characters = std::map<std::string, std::shared_ptr<AICharacter>>;

  explicit CharacterRegistry(std::shared_ptr<MeetingContext> context)
      : _context(std::move(context)) {}
  /// Set once, before the meeting is used.
  void setMeetingActionValidator(std::weak_ptr<MeetingActionValidating> validator) {
    _validator = std::move(validator);
  }

  /// Who is in the meeting.
  Characters characters() const;
  /// A character that is not in the meeting yet.
  std::shared_ptr<AICharacter> createCharacter(CharacterConfig config);

  // For the characters, behind the guard
  void join(const std::shared_ptr<AICharacter>& character);
  void ask(ServiceOperation operation, const AICharacter& character, Dictionary more = {});

  // What the service tells
  void addCharacter(const Peer& peer);
  void removedCharacter(const std::string& characterId);
  void characterMessageReceived(const CharacterMessage& message);
  void characterStateChanged(const CharacterStateChange& change);
  /// \returns whether such a character is here
  bool addStream(const std::shared_ptr<MediaStream>& stream, const std::string& characterId);
  void removeStream(const std::string& id);
  void handleStreamStateChange(StreamState state, const std::string& characterId,
                               const std::string& trackId);
  /// \returns whether it was a stream of a character's
  bool takeMetrics(const StreamMeasurement& measured);
  /// The meeting is over: whoever listens to a stream hears its end.
  void endStreams();
  /// The local participant moves to another meeting.
  void removeAll();
  /// The meeting was let go of: nobody hears anything any more.
  void dismissListeners();
  /// The meeting is over: everybody goes without an event.
  void clear();

private:
  using Streams = std::map<std::string, std::shared_ptr<MediaStream>>;
  std::shared_ptr<AICharacter> character(const std::string& id) const;
  /// The one that is here, that was here, or that the application made, by that id.
  std::shared_ptr<AICharacter> knownCharacter(const std::string& id) const;
  std::shared_ptr<AICharacter> adopt(std::shared_ptr<AICharacter> character);
  /// From now on it is the one that is known by its id.
  void remember(const std::shared_ptr<AICharacter>& character);
  void joinAnswered(const std::shared_ptr<AICharacter>& character, int number,
                    const Dictionary& reply);
  void tellJoined(const std::shared_ptr<AICharacter>& joined);
  /// All that are alive, here or not, also those whose id another one has by now.
  std::vector<std::shared_ptr<AICharacter>> everyCharacter() const;
  void addInternalCharacter(const std::shared_ptr<AICharacter>& character);

  const std::shared_ptr<MeetingContext> _context;
  std::weak_ptr<MeetingActionValidating> _validator;

  mutable std::mutex _characterLock;
  Characters _characters;  // under the lock, like the next two
  std::map<std::string, std::weak_ptr<AICharacter>> _known;
  std::vector<std::weak_ptr<AICharacter>> _every;
};

}  // namespace kestrova
