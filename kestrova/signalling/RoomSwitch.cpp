#include <kestrova/signalling/Response.h>
#include <kestrova/signalling/RoomSwitch.h>
#include <kestrova/tracing/Trace.h>

#include <utility>

namespace kestrova {

Task<void> RoomSwitch::switchTo(std::optional<std::string> token, std::string meetingId,
                                Mode mode) {
  const auto self = shared_from_this();
  const auto& participantId = _context->options.meeting.localParticipantId;
  ScopedSpan span("Requesting to switch meeting",
                  {{"peer.id", participantId}, {"meetingId", meetingId}});
  Dictionary data{{"meetingId", meetingId},
                  {"secret", token.value_or("")},
                  {"participantId", participantId},
                  {"mode", wireText(mode)}};
  const Dictionary reply = co_await _context->socketRequestHandler->prepareAndSendRequest(
      LocalEvent::switchToMeeting, std::move(data));
  if (const auto status = isStatusOK(reply); !status.ok) {
    span.fail("Error in switchTo() -> " + status.failure);
    if (const auto delegate = _context->delegate())
      delegate->onError(KestrovaError::SWITCH_MEETING_FAILED);
    co_return;
  }
  span.event("Meeting switch request sent successfully");
}

void RoomSwitch::softClose() {
  _consuming->closeAllConsumers();
  trace("Cleaned up media streams successfully");
  if (const auto delegate = _context->delegate())
    delegate->handleOnRemoveCurrentMeetingParticipant();
}

Task<void> RoomSwitch::switchingRoom(std::string meetingId, Mode mode, bool isBatchingEnabled) {
  const auto self = shared_from_this();
  const auto& displayName = _context->options.meeting.localParticipantName;
  ScopedSpan span("Switching room", {{"room.id", meetingId}, {"displayName", displayName}});
  bool failed = false;
  try {
    ScopedSpan requesting("Requesting to join switched room", {}, span.scope());
    auto joining = _joinSequence->join(CameraPosition::front, true, mode, isBatchingEnabled);
    const auto unsupportedCodecs = co_await std::move(joining);
    requesting.event("Requested to join switched room successfully");
    const auto delegate = _context->delegate();
    if (!delegate) co_return;
    if (!unsupportedCodecs.empty()) delegate->switchRoomUnsupportedCodecs(unsupportedCodecs);
    span.event("Emitting MEETING_JOINED Event");
    MainQueue::shared().async([weak = std::weak_ptr(delegate), meetingId] {
      if (const auto meeting = weak.lock()) meeting->meetingJoined(meetingId);
    });
    span.event("Requested room switch completed successfully");
  } catch (const std::exception& error) {
    span.fail(std::string("Switching room failed with error: ") + error.what());
    failed = true;
  }
  if (failed) co_await _teardown->closeRoom(LeaveReason::switchRoomFailed);
}

}  // namespace kestrova
