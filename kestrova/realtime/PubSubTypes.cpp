#include <kestrova/realtime/PubSubTypes.h>

namespace kestrova {
namespace {

using Kind = PubSubError::Kind;

std::string describe(Kind kind, const std::string& carried) {
  switch (kind) {
    case Kind::invalidOldMessageLimit:
      return "\"oldMessageLimit\" must be an integer >= 0 (got " + carried + ").";
    case Kind::invalidMaxQueue:
      return "\"maxQueue\" must be an integer >= 1 (got " + carried + ").";
    case Kind::invalidNewMessageLimit:
      return "\"newMessageLimit\" must be an integer >= 0 (got " + carried + ").";
    case Kind::maxQueueNotAllowedWithDrop:
      return "\"maxQueue\" is not allowed with realtimeOverflow=\"drop\".";
    case Kind::operationTimeout:
      return "Operation Timeout.";
    case Kind::noSubscribedListener:
      return "No subscribed listener found for this topic";
    case Kind::alreadySubscribed:
      return "You already subscribed to this topic with same listener.";
    case Kind::meetingNotJoined:
      return "You must join the meeting before using PubSub.";
    case Kind::meetingReconnecting:
      return "The meeting is reconnecting. Please try again once it reconnects.";
    case Kind::meetingAlreadyLeft:
      return "You have already left the meeting.";
    case Kind::publishFailed:
    case Kind::subscribeFailed:
    case Kind::unsubscribeFailed:
      break;
  }
  return carried;
}

}  // namespace

PubSubError::PubSubError(Kind kind, const std::string& carried)
    : std::runtime_error(describe(kind, carried)), _kind(kind) {}

PubSubError::PubSubError(Kind kind, std::int64_t value)
    : PubSubError(kind, std::to_string(value)) {}

std::string_view rawValue(RealtimeOverflow overflow) {
  return overflow == RealtimeOverflow::drop ? "drop" : "queue";
}

void PubSubSubscribeOptions::validated() const {
  if (oldMessageLimit && *oldMessageLimit < 0)
    throw PubSubError(Kind::invalidOldMessageLimit, *oldMessageLimit);
  if (maxQueue && *maxQueue < 1) throw PubSubError(Kind::invalidMaxQueue, *maxQueue);
  if (newMessageLimit < 0) throw PubSubError(Kind::invalidNewMessageLimit, newMessageLimit);
  if (realtimeOverflow == RealtimeOverflow::drop && maxQueue)
    throw PubSubError(Kind::maxQueueNotAllowedWithDrop);
}

}  // namespace kestrova
