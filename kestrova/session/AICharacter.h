#pragma once

#include <kestrova/model/CharacterTypes.h>
#include <kestrova/model/ListenerHandle.h>
#include <kestrova/model/MeetingAction.h>
#include <kestrova/model/MeetingTypes.h>
#include <kestrova/session/CharacterEventListener.h>
#include <kestrova/session/CharacterEvents.h>
#include <kestrova/session/MediaStream.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kestrova {

class CharacterRegistry;
struct Peer;

/// An AI character: made by `Meeting::createCharacter`, in the meeting from its `join` on, where it
/// listens, thinks and talks with streams of its own. Characters that others brought are of this
/// class, too. Thread-safe; listeners are called on the main queue.
///
/// The operations return at once. They do nothing before the meeting is joined, while it
/// reconnects and after its end, but for the error that `onError` reports; nor when the meeting is
/// gone.
class AICharacter : public std::enable_shared_from_this<AICharacter>,
                    public MeetingActionValidatorProviding {
public:
  /// For the library: of a character that was not made by a meeting the operations do nothing.
  explicit AICharacter(CharacterConfig config);
  /// The same, of one that the service announces.
  explicit AICharacter(const Peer& peer);
  ~AICharacter() override;

  /// What it was made from, with what the service filled in. Of one that others brought the service
  /// tells the id, the name and the interaction.
  CharacterConfig characterConfig() const;
  std::string characterId() const;
  /// Empty when it has none.
  std::string displayName() const;
  std::optional<std::string> interactionId() const;
  std::optional<std::string> characterMode() const;
  std::optional<std::string> characterRole() const;
  std::vector<std::string> knowledgeBases() const;
  std::vector<std::string> metaData() const;
  /// What it sends and receives, where the service says so.
  std::optional<Mode> mode() const;
  /// Whether the service has announced it, and not its end.
  bool isJoined() const;
  /// Streams by their id, as they are now; `onStreamEnabled` of one of them may be still to come.
  std::map<std::string, std::shared_ptr<MediaStream>> streams() const;

  /// Asks the service to let it in. `onCharacterJoined` tells that it is there, and comes again
  /// after each return from a lost connection. A refusal comes through `onError` as
  /// CHARACTER_JOIN_FAILED; where the cause is that no answer came, the character may be announced
  /// all the same.
  void join();
  /// Asks the service to take it out; `onCharacterLeft` tells when it is. A refusal comes through
  /// `onError` as CHARACTER_LEAVE_FAILED.
  void leave();
  /// Says something to it; what it answers comes by `onCharacterMessage`, and by its voice. A
  /// refusal is only traced.
  void sendMessage(const std::string& text);
  /// Silences it in the middle of what it says. A refusal is only traced.
  void interrupt();

  /// Listeners are held weakly: the application keeps them for as long as they shall hear.
  void addEventListener(const std::shared_ptr<CharacterEventListener>& listener);
  template <HeldByCallerOnly Listener>
  [[deprecated(
      "listeners are held weakly, and this one goes at once: name it, or use listen()")]]  //
  void
  addEventListener(std::shared_ptr<Listener>&& listener) {
    addEventListener(std::as_const(listener));
  }
  /// The same for a listener that is kept, and listens, while the handle lives. One that is
  /// detached listens until the meeting ends or this object goes: a character that leaves keeps it,
  /// and may come again.
  ListenerHandle listen(std::shared_ptr<CharacterEventListener> listener);
  /// The same for functions, by the names of `CharacterEventListener`'s operations.
  ListenerHandle listen(CharacterEvents events);
  void removeEventListener(const std::shared_ptr<CharacterEventListener>& listener);
  void removeAllEventListeners();

  std::shared_ptr<MeetingActionValidating> meetingActionValidator() const override;

private:
  // The meeting's side of it.
  friend class CharacterRegistry;

  /// Who carries out what is asked of it, and the guard that comes before.
  void setMeeting(std::weak_ptr<CharacterRegistry> registry,
                  std::weak_ptr<MeetingActionValidating> validator);
  void update(const Dictionary& json);
  /// Notes that it asks to join. \returns the number of this time
  int beginJoin();
  /// Whether a `join` has no answer yet, and the character hasn't left since.
  bool awaitsJoin() const;
  /// \returns whether that one was awaited
  bool endJoin(int number);
  void beginLeave();
  /// Its meeting is over, or another one.
  void forgetJoins();
  /// What the service says of it beside its id.
  void describe(const Peer& peer);
  /// The meeting has announced it, or said that it left.
  void joinFromMeeting();
  void leaveFromMeeting();
  void handleStreamStateChanged(StreamState state, const std::string& streamId);
  void characterMessageFromMeeting(const CharacterMessage& message);
  void characterStateFromMeeting(const CharacterStateChange& change);
  /// Replaces a stream of the same id.
  void addStream(std::shared_ptr<MediaStream> stream);
  /// The stream that was there, if one was.
  std::shared_ptr<MediaStream> removeStream(const std::string& id);
  void removeAllStreams();
  void tellGone(const std::shared_ptr<MediaStream>& stream);
  /// The streams go on as another character's.
  std::map<std::string, std::shared_ptr<MediaStream>> handOverStreams();
  /// The meeting is over: whoever listens to a stream hears its end.
  void endStreams();
  bool takeMetrics(const std::string& streamId, const StreamMetrics& metrics);
  void releaseKeptListeners();
  /// The meeting was let go of: nobody hears anything any more.
  void dismissListeners();

  /// Who carries it out, if the guard lets it through.
  std::shared_ptr<CharacterRegistry> mayAct(const char* methodName) const;
  template <class Event>
  void emit(Event event);

  struct State;
  const std::unique_ptr<State> _state;
};

}  // namespace kestrova
