#include "ChatTopic.h"

#include <kestrova/platform/Values.h>

#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "Text.h"
#include <utility>

namespace kestrova::meet {
namespace {

using namespace std::chrono_literals;

// More scrolls away unread.
constexpr std::int64_t mostHistory = 500;
// A service that has no history may say nothing at all, instead of that it is over.
constexpr auto longestSilence = 1s;
constexpr auto untilNextTry = 5s;
// Many more than a history has, for the messages in between that aren't stored.
constexpr std::size_t mostKnown = 20 * mostHistory;
// One that never comes back would be waited for for ever.
constexpr std::size_t mostOnTheirWay = 1000;
constexpr std::size_t mostRoundTrips = 100'000;

// What our own messages carry, to be known when they come back.
constexpr const char* numberKey = "line";

}  // namespace

ChatTopic::ChatTopic(boost::asio::io_context& loop, Meeting& meeting, MeetingWatcher& watcher)
    : _loop(loop), _meeting(meeting), _watcher(watcher), _quiet(loop) {}

// ---- Listening ---------------------------------------------------------------------------------

Task<void> ChatTopic::listen() {
  const auto self = shared_from_this();
  const auto listening = ++_listening;
  _historyOver = false;
  _holding = true;
  _old = 0;
  auto subscribing = subscribe();
  const std::string failure = co_await std::move(subscribing);
  if (listening != _listening) co_return;
  if (failure.empty()) {
    auto waiting = untilHistoryIsTold(listening);
    co_await std::move(waiting);
    if (listening != _listening) co_return;
    tellHistoryEnd();
  } else {
    _watcher.note("chatError", {{"message", failure}}, "can't listen to the chat: " + failure);
    spawnOn(MainQueue::shared(), listenLater(listening));
  }
  _holding = false;
  for (const auto& message : std::exchange(_held, {})) onMessageReceived(message);
}

/// \returns what went wrong, or nothing
Task<std::string> ChatTopic::subscribe() {
  const std::shared_ptr<PubSubMessageListener> listener = shared_from_this();
  std::string failure;
  try {
    const auto pubsub = _meeting.pubsub();
    auto subscribing = pubsub->subscribe(topic, listener, {.oldMessageLimit = mostHistory});
    co_await std::move(subscribing);
  } catch (const std::exception& error) {
    failure = error.what();
  }
  co_return failure;
}

Task<void> ChatTopic::untilHistoryIsTold(std::uint64_t listening) {
  while (!_historyOver && listening == _listening) {
    boost::system::error_code interrupted;  // by more of it, or by its end
    _quiet.expires_after(longestSilence);
    co_await _quiet.async_wait(
        boost::asio::redirect_error(boost::asio::use_awaitable, interrupted));
    if (!interrupted) co_return;
  }
}

Task<void> ChatTopic::listenLater(std::uint64_t listening) {
  const auto self = shared_from_this();
  boost::asio::steady_timer pause(_loop, untilNextTry);
  co_await pause.async_wait(boost::asio::use_awaitable);
  if (listening != _listening) co_return;
  auto again = listen();
  co_await std::move(again);
}

void ChatTopic::onOldMessagesReceived(const std::vector<PubSubMessage>& messages,
                                      const PubSubHistoryInfo& info) {
  for (const auto& message : messages) {
    if (!isNew(message.id)) continue;
    ++_old;
    tell("history", message);
  }
  _historyOver = _historyOver || info.isLast;
  _quiet.cancel();
}

void ChatTopic::tellHistoryEnd() {
  _watcher.note("historyEnd", {{"count", _old}}, _old > 0 ? "(end of what was said before)" : "");
}

void ChatTopic::onMessageReceived(const PubSubMessage& message) {
  clockIn(message);
  if (_holding)
    _held.push_back(message);
  else if (isNew(message.id))
    tell("message", message);
}

void ChatTopic::onMessageDrop(const PubSubMessageDropInfo& info) {
  _watcher.note("drop", {{"count", info.droppedCount}},
                std::to_string(info.droppedCount) + " messages are missing here");
}

void ChatTopic::onReconnected() {
  spawnOn(MainQueue::shared(), listenAnew());
}

Task<void> ChatTopic::listenAnew() {
  const auto self = shared_from_this();
  const std::shared_ptr<PubSubMessageListener> listener = self;
  const auto before = _listening;
  try {
    const auto pubsub = _meeting.pubsub();
    auto unsubscribing = pubsub->unsubscribe(topic, listener);
    co_await std::move(unsubscribing);
  } catch (const std::exception&) {  // the subscription is gone all the same
  }
  // The next join listens by itself, and after the end nobody does.
  if (before != _listening || _meeting.meetingState() != MeetingState::CONNECTED) co_return;
  auto listening = listen();
  co_await std::move(listening);
}

/// A message without an id can't be told from another one.
bool ChatTopic::isNew(const std::string& id) {
  if (id.empty()) return true;
  if (!_known.insert(id).second) return false;
  _knownInOrder.push_back(id);
  if (_knownInOrder.size() > mostKnown) {
    _known.erase(_knownInOrder.front());
    _knownInOrder.pop_front();
  }
  return true;
}

void ChatTopic::tell(const char* event, const PubSubMessage& message) {
  const auto& name = message.senderName.empty() ? message.senderId : message.senderName;
  _watcher.note(event,
                {{"id", message.id},
                 {"senderId", message.senderId},
                 {"senderName", message.senderName},
                 {"timestamp", message.timestamp},
                 {"message", message.message},
                 {"payload", message.payload}},
                clockTime(message.timestamp) + " " + name + ": " + message.message);
}

// ---- Speaking ----------------------------------------------------------------------------------

Task<void> ChatTopic::say(std::string message, Dictionary payload) {
  const auto self = shared_from_this();
  const auto number = ++_said;
  payload[numberKey] = number;
  if (_onTheirWay.size() >= mostOnTheirWay) _onTheirWay.erase(_onTheirWay.begin());
  _onTheirWay[number] = Clock::now();
  const auto pubsub = _meeting.pubsub();
  auto publishing =
      pubsub->publish(topic, std::move(message), {{"persist", true}}, std::move(payload));
  try {
    co_await std::move(publishing);
  } catch (...) {
    _onTheirWay.erase(number);
    throw;
  }
}

void ChatTopic::clockIn(const PubSubMessage& message) {
  if (message.senderId != _meeting.localParticipant()->id()) return;
  const auto sent = _onTheirWay.find(integer(message.payload, numberKey, 0));
  if (sent == _onTheirWay.end()) return;
  if (_roundTrips.size() < mostRoundTrips) _roundTrips.push_back(Clock::now() - sent->second);
  _onTheirWay.erase(sent);
}

}  // namespace kestrova::meet
