#pragma once

#include <kestrova/model/KestrovaError.h>
#include <kestrova/model/MeetingAction.h>

namespace kestrova {

/// What topic messages need of the meeting that they belong to. Any thread.
class RealtimeMeeting : public MeetingActionValidating {
public:
  virtual void onError(const KestrovaError& error) = 0;
};

}  // namespace kestrova
