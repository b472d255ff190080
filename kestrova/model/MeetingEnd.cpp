#include <kestrova/model/MeetingEnd.h>
#include <kestrova/platform/EnumTexts.h>

namespace kestrova {
namespace {

using Kind = MeetingEnd::Kind;

constexpr EnumTexts<Kind, 7> kindNames = {
    {"left", "ended", "removed", "joinFailed", "denied", "connectionLost", "letGo"}};
constexpr EnumTexts<Kind, 7> kindTexts = {
    {"the meeting was left", "the meeting ended", "removed from the meeting",
     "the meeting can't be joined", "entry to the meeting was denied",
     "the connection to the meeting was lost", "the program let go of the meeting"}};

Kind kindOf(LeaveReason reason) {
  switch (reason) {
    case LeaveReason::manualLeaveCalled:
      return Kind::left;
    case LeaveReason::websocketDisconnected:
    case LeaveReason::websocketConnectionAttemptsExhausted:
      return Kind::connectionLost;
    case LeaveReason::joinRoomFailed:
    case LeaveReason::switchRoomFailed:
      return Kind::joinFailed;
    case LeaveReason::removePeer:
    case LeaveReason::removePeerViewerModeChanged:
    case LeaveReason::removePeerMediaRelayStop:
    case LeaveReason::removePeerApi:
    case LeaveReason::duplicateParticipant:
      return Kind::removed;
    case LeaveReason::switchRoom:
    case LeaveReason::roomClose:
    case LeaveReason::unknown:
    case LeaveReason::removeAll:
    case LeaveReason::meetingEndApi:
      return Kind::ended;
  }
  return Kind::ended;
}

}  // namespace

MeetingEnd MeetingEnd::by(LeaveReason reason, bool wasJoined) {
  auto kind = kindOf(reason);
  if (kind == Kind::connectionLost && !wasJoined) kind = Kind::joinFailed;
  if (kind == Kind::joinFailed && wasJoined) kind = Kind::connectionLost;
  return {.kind = kind, .reason = reason};
}

std::string_view name(MeetingEnd::Kind kind) {
  return kindNames(kind);
}

std::string text(const MeetingEnd& end) {
  std::string line(kindTexts(end.kind));
  if (end.error) return line + ": " + text(*end.error);
  if (end.reason && end.kind != Kind::left) line += ": " + std::string(message(*end.reason));
  if (!end.cause.empty()) line += " (" + end.cause + ")";
  return line;
}

}  // namespace kestrova
