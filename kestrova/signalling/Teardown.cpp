#include <kestrova/media/BroadcastCapturer.h>
#include <kestrova/media/ConsumerClosing.h>
#include <kestrova/model/RoomClientError.h>
#include <kestrova/signalling/Response.h>
#include <kestrova/signalling/Teardown.h>
#include <kestrova/tracing/Trace.h>

#include <utility>

namespace kestrova {

Teardown::Teardown(std::shared_ptr<RoomContext> context, std::shared_ptr<MediaRegistry> registry,
                   std::shared_ptr<Transports> transports, std::shared_ptr<Publishing> publishing,
                   std::shared_ptr<MediaCapturer> capturer,
                   std::shared_ptr<BroadcastCapturer> broadcast,
                   std::shared_ptr<AudioManager> audioSession)
    : _context(std::move(context)),
      _registry(std::move(registry)),
      _transports(std::move(transports)),
      _publishing(std::move(publishing)),
      _capturer(std::move(capturer)),
      _broadcast(std::move(broadcast)),
      _audioSession(std::move(audioSession)) {}

namespace {

/// One step of the way down: a failure is told, and the next step follows.
template <class Step>
void attempt(const char* what, Step&& step) {
  try {
    step();
  } catch (const std::exception& error) {
    traceError([&] { return std::string("Error while leaving: ") + what; },
               {{"error", std::string_view(error.what())}});
  } catch (...) {
    traceError([&] { return std::string("Error while leaving: ") + what; });
  }
}

}  // namespace

bool Teardown::claim() {
  std::scoped_lock held(_teardownLock);
  return !std::exchange(_didTearDown, true);
}

Task<void> Teardown::disconnect(LeaveReason leaveReason, bool closeSocket,
                                std::shared_ptr<void> goodbye) {
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
    attempt("streams", [this] { letGoOfStreams(); });
    co_await closeLocalMedia(closing.scope());
    attempt("screen", [this] { _broadcast->removeBroadcastTrack(); });
    attempt("capture", [this] { _capturer->stop(); });
    attempt("transports", [this] { _transports->closeTransports(); });
    if (const auto& e2ee = _context->e2eeManager) e2ee->cleanupAll();
    attempt("audio session", [this] { _audioSession->stopAudioSession(); });
    closing.event("Disposing Transports & Devices");
    closing.event("All resources closed successfully");
  }
  trace("Emitting MEETING_LEFT Event",
        {{"leaveReasonCode", rawValue(leaveReason)}, {"leaveReason", message(leaveReason)}},
        leaveSpan);
  trace(manual ? "Meeting left successfully" : "Meeting closed successfully", {}, leaveSpan);
  // Before the goodbye is said: a process that waits for no more than that still exports it.
  _context->spans.finish(RoomSpans::Slot::leave);
  if (closeSocket) _context->socketRequestHandler->disconnect(leaveReason, std::move(goodbye));
}

/// What is received ends with its transport, which is closed in a moment: negotiating it away one
/// by one would cost as much again for each.
void Teardown::letGoOfStreams() {
  for (const auto& producer : _registry->takeProducers())
    if (!producer->closed()) producer->close();
  std::vector<std::string> ids;
  for (const auto& consumer : _registry->takeConsumers()) {
    letGoOfConsumer(*_context, consumer);
    ids.push_back(consumer->id());
  }
  removeStreams(_context, std::move(ids));
  _context->spans.endPeersAndConsumers();
}

/// What is closed already, or never ran, is no obstacle.
Task<void> Teardown::closeLocalMedia(SpanScope parentSpan) {
  struct Step {
    const char* span;
    Task<std::string> (Publishing::*close)(std::optional<Connection>, std::optional<SpanScope>);
  };
  constexpr Step steps[] = {{"Disabling Screen Share", &Publishing::closeLocalScreenShare},
                            {"Disabling microphone", &Publishing::closeLocalAudio},
                            {"Disabling Webcam", &Publishing::closeLocalVideo}};
  for (const auto& step : steps) {
    ScopedSpan span(step.span, {}, parentSpan);
    std::optional<SpanScope> parent = span.scope();
    try {
      co_await ((*_publishing).*step.close)(std::nullopt, std::move(parent));
    } catch (const RoomClientFailure&) {
    } catch (const std::exception& error) {
      span.fail(error.what());
    } catch (...) {
      span.fail("an unknown failure");
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
