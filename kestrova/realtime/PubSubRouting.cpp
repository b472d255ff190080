#include <kestrova/realtime/PubSubRouting.h>
#include <kestrova/realtime/RealtimeTrace.h>

namespace kestrova {

void PubSubRouting::assertMeetingActive(std::string_view methodName) const {
  using Failure = MeetingActionValidationFailure;
  using Kind = PubSubError::Kind;
  const auto owner = meeting.lock();
  const auto failure =
      owner ? realtimeActionState(*owner, *roomClient) : std::optional(Failure::meetingNotJoined);
  if (!failure) return;
  if (owner) owner->emitMeetingActionValidationFailure(*failure, methodName);
  switch (*failure) {
    case Failure::meetingReconnecting:
      traceRealtime("Router: rejected — meeting reconnecting");
      throw PubSubError(Kind::meetingReconnecting);
    case Failure::meetingAlreadyLeft:
      traceRealtime("Router: rejected — meeting already left");
      throw PubSubError(Kind::meetingAlreadyLeft);
    case Failure::meetingNotJoined:
      break;
  }
  traceRealtime("Router: rejected — meeting not joined");
  throw PubSubError(Kind::meetingNotJoined);
}

}  // namespace kestrova
