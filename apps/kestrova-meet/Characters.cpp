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

}  // namespace

Characters::Characters(boost::asio::io_context& loop, Meeting& meeting, MeetingWatcher& watcher)
    : _meeting(meeting), _watcher(watcher), _news(loop) {}

std::shared_ptr<CharacterWatch> Characters::find(const std::string& id) const {
  const auto found =
      std::find_if(_all.begin(), _all.end(), [&](const auto& each) { return each->id() == id; });
  return found == _all.end() ? nullptr : *found;
}

bool Characters::isOwn(const std::string& id) const {
  return _own && _own->characterId() == id;
}

bool Characters::isComing(const std::string& id) const {
  return isOwn(id) && _ownState == OwnState::coming;
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
  if (_ownState != OwnState::brought || !_own->isJoined()) return done();
  _dismissed = std::move(done);
  _own->leave();
}

void Characters::finishDismissal() {
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
    if (!interrupted) throw CharacterFailure(otherwise);
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
  const auto before = _told;
  watch->character()->sendMessage(text);
  auto hearing = until([this, before, watch] { return _told > before || !watch->isHere(); },
                       id + " may not have heard it");
  co_await std::move(hearing);
  if (_told == before) throw CharacterFailure(id + " left before it heard that");
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
  _away = true;
  _news.cancel();
}

void Characters::onError(const KestrovaError& error) {
  // It may be there all the same, brought by somebody else: then it is theirs.
  if (error == KestrovaError::CHARACTER_JOIN_FAILED) _ownState = OwnState::refused;
  finishDismissal();
  _news.cancel();
}

void Characters::onCharacterJoined(const std::shared_ptr<AICharacter>& character) {
  if (isComing(character->characterId())) _ownState = OwnState::brought;
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
  if (isOwn(id)) finishDismissal();
  _news.cancel();
}

void Characters::onCharacterMessage(const CharacterMessage& message) {
  if (message.participantId == _meeting.localParticipant()->id()) ++_told;
  if (const auto watch = find(message.characterId)) watch->messageCame(message);
  _news.cancel();
}

void Characters::onCharacterStateChanged(const CharacterStateChange& change) {
  if (const auto watch = find(change.id)) watch->stateChanged(change.status);
  _news.cancel();
}

}  // namespace kestrova::meet
