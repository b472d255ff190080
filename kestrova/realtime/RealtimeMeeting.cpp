#include <kestrova/realtime/RealtimeMeeting.h>
#include <kestrova/signalling/RoomClient.h>

namespace kestrova {

std::optional<MeetingActionValidationFailure> realtimeActionState(
    const MeetingActionValidating& meeting, const RoomClient& client) {
  const auto failure = meeting.meetingActionState();
  if (!failure && client.awaitsJoin()) return MeetingActionValidationFailure::meetingReconnecting;
  return failure;
}

}  // namespace kestrova
