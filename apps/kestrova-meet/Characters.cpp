#include "Characters.h"

#include <kestrova/platform/Queue.h>

#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <algorithm>
#include <utility>

namespace kestrova::meet {
namespace {

using namespace std::chrono_literals;

// A service that refuses to pass a message on says so to nobody.
constexpr auto longestWait = 10s;
// A join fails with the connection a moment before that itself is told, or behind it.
constexpr auto sameMoment = 1s;
// That of somebody else is told of first, and then our own is refused: on a busy machine a good
// while later. It is waited for only where the program ends in between.
constexpr auto refusalBehind = 1s;

}  // namespace

Characters::Characters(boost::asio::io_context& loop, Meeting& meeting, MeetingWatcher& watcher)
    : _meeting(meeting), _watcher(watcher), _news(loop), _unrefused(loop) {}

std::shared_ptr<CharacterWatch> Characters::find(const std::string& id) const {
  const auto found =
      std::find_if(_all.begin(), _all.end(), [&](const auto& each) { return each->id() == id; });
  return found == _all.end() ? nullptr : *found;
}

bool Characters::isOwn(const std::string& id) const {
  return _own && _own->characterId() == id;
}

bool Characters::isOwnComing() const {
  return _ownState == OwnState::coming || _ownState == OwnState::cutOff;
}

bool Characters::isComing(const std::string& id) const {
  return isOwn(id) && isOwnComing();
}

bool Characters::knows(const std::string& id) const {
  const auto watch = find(id);
  return (watch && watch->isHere()) || isComing(id);
}

void Characters::measure() const {
  for (const auto& watch : _all) watch->measure(Clock::now());
}

std::vector<PersonRow> Characters::rows() const {
  std::vector<PersonRow> rows;
  for (const auto& watch : _all) rows.push_back(watch->row());
  return rows;
}

std::vector<RemoteSummary> Characters::summaries() const {
  std::vector<RemoteSummary> summaries;
  for (const auto& watch : _all) summaries.push_back(watch->summary(_watcher.started()));
  return summaries;
}

// ---- Our own -----------------------------------------------------------------------------------

void Characters::bring(CharacterConfig config) {
  _own = _meeting.createCharacter(std::move(config));
  _ownState = OwnState::coming;
  _own->join();
}

void Characters::dismiss(std::function<void()> done) {
  _dismissed = std::move(done);
  // One that is on its way would stay behind.
  if (!isOwnComing()) leaveUnlessRefused();
}

void Characters::askToLeave() {
  if (_ownState != OwnState::brought || !_own->isJoined()) return finishDismissal();
  _own->leave();
}

void Characters::finishDismissal() {
  _unrefused.cancel();
  if (const auto done = std::exchange(_dismissed, nullptr)) done();
}

// ---- Talking to them ---------------------------------------------------------------------------

/// One at a time may wait.
Task<void> Characters::until(std::function<bool()> so, std::string otherwise) {
  const auto self = shared_from_this();
  _news.expires_after(longestWait);
  while (!so()) {
    if (_away) throw CharacterFailure("the connection was lost; " + otherwise);
    boost::system::error_code interrupted;
    co_await _news.async_wait(boost::asio::redirect_error(boost::asio::use_awaitable, interrupted));
    // It may have come true in the very moment in which the time was over.
    if (!interrupted && !so()) throw CharacterFailure(otherwise);
  }
}

Task<std::shared_ptr<CharacterWatch>> Characters::present(std::string id) {
  if (_meeting.meetingState() != MeetingState::CONNECTED) throw CharacterAway();
  _away = false;
  auto coming = until([this, id] { return !isComing(id); }, id + " is not there yet");
  co_await std::move(coming);
  auto watch = find(id);
  if (!watch || !watch->isHere()) throw CharacterFailure("there is no character " + id);
  co_return watch;
}

Task<void> Characters::say(std::string id, std::string text) {
  auto finding = present(id);
  const auto watch = co_await std::move(finding);
  _saying = {.id = id, .text = text};
  watch->character()->sendMessage(text);
  auto hearing = until([this, watch] { return _saying.isHeard || !watch->isHere(); },
                       id + " may not have heard it");
  co_await std::move(hearing);
  if (!_saying.isHeard) throw CharacterFailure(id + " left before it heard that");
}

Task<void> Characters::interrupt(std::string id) {
  auto finding = present(id);
  const auto watch = co_await std::move(finding);
  watch->character()->interrupt();
  const auto silent = [watch] {
    return !watch->isHere() || watch->state() == CharacterState::characterListening;
  };
  auto waiting = until(silent, id + " may not have heard it");
  co_await std::move(waiting);
}

// ---- What the meeting tells --------------------------------------------------------------------

void Characters::onMeetingStateChanged(MeetingState state) {
  if (state == MeetingState::CONNECTED) return;
  const bool failedWithIt =
      _ownState == OwnState::refused && Clock::now() - _refusedAt < sameMoment;
  if (_ownState == OwnState::coming || failedWithIt) ownIsCutOff();
  _away = true;
  _news.cancel();
}

void Characters::onError(const KestrovaError& error) {
  if (error == KestrovaError::CHARACTER_JOIN_FAILED) ownJoinFailed();
  if (endsDismissal(error)) finishDismissal();
  _news.cancel();
}

/// Whether it says that our own won't be asked to leave, or won't leave.
bool Characters::endsDismissal(const KestrovaError& error) const {
  if (error == KestrovaError::CHARACTER_JOIN_FAILED) return _ownState == OwnState::refused;
  return error == KestrovaError::CHARACTER_LEAVE_FAILED ||
         error == KestrovaError::ERROR_MEETING_RECONNECTING ||
         error == KestrovaError::ERROR_ACTION_PERFORMED_BEFORE_MEETING_JOINED;
}

/// Where it is there all the same, somebody else brought it.
void Characters::ownJoinFailed() {
  if (_meeting.meetingState() != MeetingState::CONNECTED) return ownIsCutOff();
  _ownState = OwnState::refused;
  _refusedAt = Clock::now();
}

/// The service may have let it in, and tells that again after the return.
void Characters::ownIsCutOff() {
  const auto watch = find(_own->characterId());
  _ownState = watch && watch->isHere() ? OwnState::brought : OwnState::cutOff;
}

void Characters::ownIsThere() {
  if (isOwnComing()) {
    _ownState = OwnState::brought;
    _thereAt = Clock::now();
  }
  if (_dismissed) leaveUnlessRefused();
}

/// It may be somebody else's, and our own be refused in a moment.
void Characters::leaveUnlessRefused() {
  _unrefused.expires_at(_thereAt + refusalBehind);
  _unrefused.async_wait([this](const boost::system::error_code& error) {
    if (!error) askToLeave();
  });
}

void Characters::onCharacterJoined(const std::shared_ptr<AICharacter>& character) {
  if (isOwn(character->characterId())) ownIsThere();
  if (const auto known = find(character->characterId())) {
    known->came(character);
  } else {
    const std::weak_ptr<MeetingWatcher> weak = _watcher.weak_from_this();
    const auto tell = [weak](std::string_view event, Dictionary details, const std::string& line) {
      if (const auto watcher = weak.lock()) watcher->note(event, std::move(details), line);
    };
    _all.push_back(CharacterWatch::make(character, tell));
  }
  _news.cancel();
}

void Characters::onCharacterLeft(const std::shared_ptr<AICharacter>& character) {
  const auto id = character->characterId();
  if (const auto watch = find(id); watch && watch->isHere()) watch->left();
  if (isOwn(id)) {
    if (_ownState == OwnState::brought) _ownState = OwnState::none;  // comes again as another's
    finishDismissal();
  }
  _news.cancel();
}

void Characters::onCharacterMessage(const CharacterMessage& message) {
  // Not that of an earlier one, which may come when it is given up.
  if (message.participantId == _meeting.localParticipant()->id() &&
      message.characterId == _saying.id && message.text == _saying.text)
    _saying.isHeard = true;
  if (const auto watch = find(message.characterId)) watch->messageCame(message);
  _news.cancel();
}

void Characters::onCharacterStateChanged(const CharacterStateChange& change) {
  if (const auto watch = find(change.id)) watch->stateChanged(change.status);
  _news.cancel();
}

}  // namespace kestrova::meet
