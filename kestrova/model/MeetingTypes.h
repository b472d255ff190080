#pragma once

#include <kestrova/platform/EnumTexts.h>

#include <cstdint>
#include <optional>
#include <string_view>

namespace kestrova {

/// What a participant sends and receives. The wire text of each mode is its name.
///
/// CONFERENCE is the older name of SEND_AND_RECV; VIEWER and SIGNALLING_ONLY have no media
/// connection at all.
enum class Mode { CONFERENCE, VIEWER, SEND_AND_RECV, SIGNALLING_ONLY, RECV_ONLY };

inline constexpr EnumTexts<Mode, 5> modeTexts{
    {"CONFERENCE", "VIEWER", "SEND_AND_RECV", "SIGNALLING_ONLY", "RECV_ONLY"}};
constexpr std::string_view text(Mode mode) {
  return modeTexts(mode);
}
std::string_view wireText(Mode mode);
std::optional<Mode> modeFromText(std::string_view text);
/// CONFERENCE and SEND_AND_RECV.
bool sendsMedia(Mode mode);
/// The modes that send, and RECV_ONLY.
bool receivesMedia(Mode mode);

/// CONNECTED says that the signalling connection stands, not that the meeting is joined.
enum class MeetingState { CONNECTING, CONNECTED, DISCONNECTED, RECONNECTING, FAILED };
inline constexpr EnumTexts<MeetingState, 5> meetingStateTexts{
    {"CONNECTING", "CONNECTED", "DISCONNECTED", "RECONNECTING", "FAILED"}};
constexpr std::string_view text(MeetingState state) {
  return meetingStateTexts(state);
}
std::string_view name(MeetingState state);

/// What the media connections may run over.
enum class PreferredProtocol { UDP_OVER_TCP, UDP_ONLY, TCP_ONLY };
inline constexpr EnumTexts<PreferredProtocol, 3> preferredProtocolTexts{
    {"UDP_OVER_TCP", "UDP_ONLY", "TCP_ONLY"}};
constexpr std::string_view text(PreferredProtocol protocol) {
  return preferredProtocolTexts(protocol);
}
std::string_view wireText(PreferredProtocol protocol);

/// Why a participant, or the whole meeting, ended. 1001 to 1011 come from the service, 1101 to 1104
/// are the client's own.
enum class LeaveReason {
  websocketDisconnected = 1001,
  removePeer = 1002,
  removePeerViewerModeChanged = 1003,
  removePeerMediaRelayStop = 1004,
  switchRoom = 1005,
  roomClose = 1006,
  unknown = 1007,
  removeAll = 1008,
  meetingEndApi = 1009,
  removePeerApi = 1010,
  duplicateParticipant = 1011,
  manualLeaveCalled = 1101,
  websocketConnectionAttemptsExhausted = 1102,
  joinRoomFailed = 1103,
  switchRoomFailed = 1104,
};

inline int rawValue(LeaveReason reason) {
  return static_cast<int>(reason);
}
/// The case's name, for logs.
std::string_view name(LeaveReason reason);
std::string_view message(LeaveReason reason);
/// The reason's number, and its message.
constexpr int code(LeaveReason reason) {
  return static_cast<int>(reason);
}
inline std::string_view text(LeaveReason reason) {
  return message(reason);
}
/// `unknown` for a number that no reason has.
LeaveReason leaveReasonFrom(std::int64_t code);

}  // namespace kestrova
