#include <kestrova/model/MeetingTypes.h>

#include <algorithm>
#include <array>

namespace kestrova {
namespace {

struct ReasonRow {
  LeaveReason reason;
  std::string_view name;
  std::string_view message;
};

constexpr std::array reasons{
    ReasonRow{LeaveReason::websocketDisconnected, "websocketDisconnected", "Socket disconnected"},
    ReasonRow{LeaveReason::removePeer, "removePeer", "Participant was removed from the meeting"},
    ReasonRow{LeaveReason::removePeerViewerModeChanged, "removePeerViewerModeChanged",
              "Participant removed because viewer mode was changed"},
    ReasonRow{LeaveReason::removePeerMediaRelayStop, "removePeerMediaRelayStop",
              "Participant removed because media relay was stopped"},
    ReasonRow{LeaveReason::switchRoom, "switchRoom", "Participant switched to a different room"},
    ReasonRow{LeaveReason::roomClose, "roomClose", "The meeting has been closed"},
    ReasonRow{LeaveReason::unknown, "unknown", "Participant disconnected due to an unknown reason"},
    ReasonRow{LeaveReason::removeAll, "removeAll",
              "All participants were removed from the meeting"},
    ReasonRow{LeaveReason::meetingEndApi, "meetingEndApi", "Meeting ended"},
    ReasonRow{LeaveReason::removePeerApi, "removePeerApi",
              "Participant was removed from the meeting"},
    ReasonRow{LeaveReason::duplicateParticipant, "duplicateParticipant",
              "Participant left because the same user joined from another device"},
    ReasonRow{LeaveReason::manualLeaveCalled, "manualLeaveCalled",
              "Participant manually left the meeting"},
    ReasonRow{LeaveReason::websocketConnectionAttemptsExhausted,
              "websocketConnectionAttemptsExhausted",
              "Meeting left after multiple failed websocket connection attempts"},
    ReasonRow{LeaveReason::joinRoomFailed, "joinRoomFailed", "Failed to join the meeting"},
    ReasonRow{LeaveReason::switchRoomFailed, "switchRoomFailed", "Failed to switch rooms"},
};

const ReasonRow* findReason(std::int64_t code) {
  const auto* row = std::find_if(reasons.begin(), reasons.end(), [&](const ReasonRow& candidate) {
    return rawValue(candidate.reason) == code;
  });
  return row == reasons.end() ? nullptr : row;
}

}  // namespace

std::string_view wireText(Mode mode) {
  return text(mode);
}
std::optional<Mode> modeFromText(std::string_view text) {
  return modeTexts.parse(text);
}

bool sendsMedia(Mode mode) {
  return mode == Mode::CONFERENCE || mode == Mode::SEND_AND_RECV;
}
bool receivesMedia(Mode mode) {
  return sendsMedia(mode) || mode == Mode::RECV_ONLY;
}

std::string_view name(MeetingState state) {
  return text(state);
}
std::string_view wireText(PreferredProtocol protocol) {
  return text(protocol);
}

std::string_view name(LeaveReason reason) {
  return findReason(rawValue(reason))->name;
}
std::string_view message(LeaveReason reason) {
  return findReason(rawValue(reason))->message;
}

LeaveReason leaveReasonFrom(std::int64_t code) {
  const auto* row = findReason(code);
  return row ? row->reason : LeaveReason::unknown;
}

}  // namespace kestrova
