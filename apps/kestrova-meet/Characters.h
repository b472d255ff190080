#pragma once

#include <kestrova/platform/TaskFwd.h>
#include <kestrova/session/Meeting.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "CharacterWatch.h"
#include "MeetingWatcher.h"
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace kestrova::meet {

/// Why a character was not spoken to.
struct CharacterFailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};
/// The connection is away; nothing was sent.
struct CharacterAway : CharacterFailure {
  CharacterAway() : CharacterFailure("the meeting reconnects") {}
};

/// The AI characters of the meeting: those of others, and the one that this program brings. Main
/// queue only.
class Characters final : public MeetingEventListener,
                         public std::enable_shared_from_this<Characters> {
public:
  using Clock = CharacterWatch::Clock;

  /// \param meeting \param watcher must outlive the characters
  Characters(boost::asio::io_context& loop, Meeting& meeting, MeetingWatcher& watcher);

  /// Right after the join: one of our own joins.
  void bring(CharacterConfig config);
  /// Asks the one that we brought to leave, once it is there. \param done called once it has left,
  /// or when it can't be asked; not at all where the service is silent
  void dismiss(std::function<void()> done);

  /// Whether there is such a character, or one of ours is about to come.
  bool knows(const std::string& id) const;
  /// Returns when the meeting has heard it. \throws CharacterFailure
  Task<void> say(std::string id, std::string text);
  /// Returns when the character is silent. \throws CharacterFailure
  Task<void> interrupt(std::string id);

  void measure() const;
  std::vector<PersonRow> rows() const;
  std::vector<RemoteSummary> summaries() const;

  void onMeetingStateChanged(MeetingState state) override;
  void onError(const KestrovaError& error) override;
  void onCharacterJoined(const std::shared_ptr<AICharacter>& character) override;
  void onCharacterLeft(const std::shared_ptr<AICharacter>& character) override;
  void onCharacterMessage(const CharacterMessage& message) override;
  void onCharacterStateChanged(const CharacterStateChange& change) override;

private:
  std::shared_ptr<CharacterWatch> find(const std::string& id) const;
  bool isOwn(const std::string& id) const;
  bool isOwnComing() const;
  bool isComing(const std::string& id) const;
  Task<std::shared_ptr<CharacterWatch>> present(std::string id);
  Task<void> until(std::function<bool()> so, std::string otherwise);
  void ownJoinFailed();
  void ownIsCutOff();
  void ownIsThere();
  void leaveUnlessRefused();
  void askToLeave();
  bool endsDismissal(const KestrovaError& error) const;
  void finishDismissal();

  Meeting& _meeting;
  MeetingWatcher& _watcher;
  boost::asio::steady_timer _news;  ///< cancelled whenever something happens to a character
  std::vector<std::shared_ptr<CharacterWatch>> _all;  ///< in the order of their coming
  bool _away = false;                                 ///< since the last message was sent

  std::shared_ptr<AICharacter> _own;
  enum class OwnState {
    none,
    coming,
    cutOff,   ///< the connection was lost before it was there; it may be there after the return
    brought,  ///< it is there
    refused,
  } _ownState = OwnState::none;
  Clock::time_point _refusedAt;
  Clock::time_point _thereAt;
  std::function<void()> _dismissed;
  boost::asio::steady_timer _unrefused;  ///< runs while our own may yet turn out to be another's
  /// What was said last. It is heard when the meeting has been told of it.
  struct Saying {
    std::string id, text;
    bool isHeard = false;
  } _saying;
};

}  // namespace kestrova::meet
