#pragma once

#include <memory>
#include <optional>
#include <string_view>

namespace kestrova {

/// Why an operation is refused before it does anything.
enum class MeetingActionValidationFailure {
  meetingNotJoined,
  meetingReconnecting,
  meetingAlreadyLeft
};

/// The guard that every public operation runs before it acts. `Meeting` offers it; the objects of a
/// meeting hold it weakly. Any thread.
class MeetingActionValidating {
public:
  virtual ~MeetingActionValidating() = default;
  /// Nothing when the action may go on.
  virtual std::optional<MeetingActionValidationFailure> meetingActionState() const = 0;
  /// Reports the refusal through `onError`. `methodName` is the bare name of the operation.
  virtual void emitMeetingActionValidationFailure(MeetingActionValidationFailure failure,
                                                  std::string_view methodName) = 0;
  /// Whether the operation may go on; reports the refusal if not.
  bool allows(std::string_view methodName) {
    const auto failure = meetingActionState();
    if (failure) emitMeetingActionValidationFailure(*failure, methodName);
    return !failure;
  }
};

/// Whoever can lead to the guard: a stream asks its participant.
class MeetingActionValidatorProviding {
public:
  virtual ~MeetingActionValidatorProviding() = default;
  virtual std::shared_ptr<MeetingActionValidating> meetingActionValidator() const = 0;
};

}  // namespace kestrova
