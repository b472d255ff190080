#pragma once

#include <kestrova/model/KestrovaError.h>
#include <kestrova/model/MeetingTypes.h>

#include <optional>
#include <string>
#include <string_view>

namespace kestrova {

/// How a meeting ended for this participant.
struct MeetingEnd {
  enum class Kind {
    left,            ///< `leave()`
    ended,           ///< it ended for everybody
    removed,         ///< somebody, or the service, sent this participant out
    joinFailed,      ///< it was never joined
    denied,          ///< a host refused the entry
    connectionLost,  ///< every attempt to reconnect has failed
    letGo            ///< the application let go of its last reference
  };

  Kind kind = Kind::left;
  /// What `onMeetingLeft` told; nothing where it isn't called.
  std::optional<LeaveReason> reason = {};
  /// What went wrong, where that was told by `onError`.
  std::optional<KestrovaError> error = {};
  /// Why the connection failed, for people; empty when nothing is known.
  std::string cause = {};

  /// Whether nobody wanted it: a program should exit with an error.
  bool isFailure() const {
    return kind == Kind::joinFailed || kind == Kind::denied || kind == Kind::connectionLost;
  }

  /// The end that `reason` stands for.
  static MeetingEnd by(LeaveReason reason, bool wasJoined);
};

std::string_view name(MeetingEnd::Kind kind);
/// One line for people.
std::string text(const MeetingEnd& end);

}  // namespace kestrova
