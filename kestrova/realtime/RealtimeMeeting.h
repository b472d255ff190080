#pragma once

#include <kestrova/model/KestrovaError.h>
#include <kestrova/model/MeetingAction.h>

#include <optional>

namespace kestrova {

class RoomClient;

/// What topic messages need of the meeting that they belong to. Any thread.
class RealtimeMeeting : public MeetingActionValidating {
public:
  virtual void onError(const KestrovaError& error) = 0;
};

/// What the guard says, and, beyond it, that a meeting which is connected but not joined again yet
/// is still reconnecting: the service would refuse.
std::optional<MeetingActionValidationFailure> realtimeActionState(
    const MeetingActionValidating& meeting, const RoomClient& client);

}  // namespace kestrova
