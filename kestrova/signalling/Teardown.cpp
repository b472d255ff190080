#include <kestrova/media/ConsumerClosing.h>
#include <kestrova/model/RoomClientError.h>
#include <kestrova/signalling/Response.h>
#include <kestrova/signalling/Teardown.h>
#include <kestrova/tracing/Trace.h>

#include <utility>

namespace kestrova {

Teardown::Teardown(std::shared_ptr<RoomContext> context, std::shared_ptr<MediaRegistry> registry,
                   std::shared_ptr<Transports> transports, std::shared_ptr<Publishing> publishing,
                   std::shared_ptr<MediaCapturer> capturer)
    : _context(std::move(context)),
      _registry(std::move(registry)),
      _transports(std::move(transports)),
      _publishing(std::move(publishing)),
      _capturer(std::move(capturer)) {}

bool Teardown::claim() {
  std::scoped_lock held(_teardownLock);
  return !std::exchange(_didTearDown, true);
}

Task<void> Teardown::disconnect(LeaveReason leaveReason, bool closeSocket) {
  const auto self = shared_from_this();
  if (!claim()) {
    trace([&] {
      return "Meeting teardown already in progress; skipping duplicate disconnect(" +
             std::string(name(leaveReason)) + ")";
    });
    co_return;
  }
  const bool manual = leaveReason == LeaveReason::manualLeaveCalled;
  const auto leaveSpan = openSpan(manual ? "Leaving the meeting" : "Closing the meeting");
  _context->spans.set(RoomSpans::Slot::leave, leaveSpan);
  if (manual) _context->socketRequestHandler->definePeerLeftReason("MANUAL_LEAVE_CALLED");
  {
    ScopedSpan closing("Closing resources", {}, leaveSpan);
    closeStreams();
    co_await closeLocalMedia(closing.scope());
    _capturer->stop();
    _transports->closeTransports();
    closing.event("Disposing Transports & Devices");
    closing.event("All resources closed successfully");
  }
  trace("Emitting MEETING_LEFT Event",
        {{"leaveReasonCode", rawValue(leaveReason)}, {"leaveReason", message(leaveReason)}},
        leaveSpan);
  trace(manual ? "Meeting left successfully" : "Meeting closed successfully", {}, leaveSpan);
  if (closeSocket) _context->socketRequestHandler->disconnect(leaveReason);
}

void Teardown::closeStreams() {
  for (const auto& producer : _registry->takeProducers())
    if (!producer->closed()) producer->close();
  const auto delegate = _context->delegate();
  for (const auto& consumer : _registry->takeConsumers()) {
    closeConsumer(*_context, consumer);
    if (delegate) delegate->removeStream(consumer->id());
  }
  _context->spans.endPeersAndConsumers();
}

/// What is closed already, or never ran, is no obstacle.
Task<void> Teardown::closeLocalMedia(SpanScope parentSpan) {
  struct Step {
    const char* span;
    Task<std::string> (Publishing::*close)(bool, std::optional<SpanScope>);
  };
  constexpr Step steps[] = {{"Disabling Screen Share", &Publishing::closeLocalScreenShare},
                            {"Disabling microphone", &Publishing::closeLocalAudio},
                            {"Disabling Webcam", &Publishing::closeLocalVideo}};
  for (const auto& step : steps) {
    ScopedSpan span(step.span, {}, parentSpan);
    std::optional<SpanScope> parent = span.scope();
    try {
      co_await ((*_publishing).*step.close)(false, std::move(parent));
    } catch (const RoomClientFailure&) {
    }
  }
}

Task<void> Teardown::closeRoom(std::optional<LeaveReason> leaveReason) {
  const auto self = shared_from_this();
  const Dictionary reply = co_await _context->socketRequestHandler->closeRoom(leaveReason);
  if (const auto status = isStatusOK(reply); !status.ok)
    traceError([&] { return "Error in end() -> " + status.failure; });
}

}  // namespace kestrova
