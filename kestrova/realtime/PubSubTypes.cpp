#include <kestrova/realtime/PubSubTypes.h>

namespace kestrova {
namespace {

using PubSubKind = PubSubError::Kind;

std::string describePubSubError(PubSubKind kind, const std::string& carried) {
  switch (kind) {
    case PubSubKind::invalidOldMessageLimit:
      return "\"oldMessageLimit\" must be an integer >= 0 (got " + carried + ").";
    case PubSubKind::invalidMaxQueue:
      return "\"maxQueue\" must be an integer >= 1 (got " + carried + ").";
    case PubSubKind::invalidNewMessageLimit:
      return "\"newMessageLimit\" must be an integer >= 0 (got " + carried + ").";
    case PubSubKind::maxQueueNotAllowedWithDrop:
      return "\"maxQueue\" is not allowed with realtimeOverflow=\"drop\".";
    case PubSubKind::operationTimeout:
      return "Operation Timeout.";
    case PubSubKind::noSubscribedListener:
      return "No subscribed listener found for this topic";
    case PubSubKind::alreadySubscribed:
      return "You already subscribed to this topic with same listener.";
    case PubSubKind::meetingNotJoined:
      return "You must join the meeting before using PubSub.";
    case PubSubKind::meetingReconnecting:
      return "The meeting is reconnecting. Please try again once it reconnects.";
    case PubSubKind::meetingAlreadyLeft:
      return "You have already left the meeting.";
    case PubSubKind::publishFailed:
    case PubSubKind::subscribeFailed:
    case PubSubKind::unsubscribeFailed:
      break;
  }
  return carried;
}

}  // namespace

PubSubError::PubSubError(Kind kind, const std::string& carried)
    : std::runtime_error(describePubSubError(kind, carried)), _kind(kind) {}

PubSubError::PubSubError(Kind kind, std::int64_t value)
    : PubSubError(kind, std::to_string(value)) {}

std::string_view rawValue(RealtimeOverflow overflow) {
  return overflow == RealtimeOverflow::drop ? "drop" : "queue";
}

void PubSubSubscribeOptions::validated() const {
  if (oldMessageLimit && *oldMessageLimit < 0)
    throw PubSubError(PubSubKind::invalidOldMessageLimit, *oldMessageLimit);
  if (maxQueue && *maxQueue < 1) throw PubSubError(PubSubKind::invalidMaxQueue, *maxQueue);
  if (newMessageLimit < 0) throw PubSubError(PubSubKind::invalidNewMessageLimit, newMessageLimit);
  if (realtimeOverflow == RealtimeOverflow::drop && maxQueue)
    throw PubSubError(PubSubKind::maxQueueNotAllowedWithDrop);
}

}  // namespace kestrova
