#include <kestrova/signalling/ModeChanging.h>
#include <kestrova/signalling/Response.h>
#include <kestrova/tracing/Trace.h>

#include <exception>
#include <string>

namespace kestrova {

Task<void> ModeChanging::changeMode(Mode mode, std::optional<SpanScope> changeModeSpan) {
  const auto self = shared_from_this();
  const auto previous = _context->mode();
  if (mode == previous) {
    const auto described = std::string(wireText(mode)) + " Mode.";
    const auto cause = "Participant is already in " + described;
    traceError("Error in changeMode() -> Already in " + described, {}, changeModeSpan);
    traceError(cause, {}, changeModeSpan);
    throw ModeChangeFailure(ModeChangeFailure::Kind::alreadySameMode, cause);
  }
  _context->setMode(mode);  // the transports follow the mode
  std::exception_ptr refusal;
  try {
    auto setup = _transports->setupDeviceAndTransports(true, changeModeSpan, sendsMedia(mode),
                                                       receivesMedia(mode));
    co_await std::move(setup);
    co_await performChangeModeOnServer(mode, changeModeSpan);
  } catch (...) {
    refusal = std::current_exception();
    _context->setMode(previous);
  }
  closeUnused();
  if (refusal) std::rethrow_exception(refusal);
}

void ModeChanging::closeUnused() {
  const auto mode = _context->mode();
  if (!receivesMedia(mode)) {
    const auto delegate = _context->delegate();
    for (const auto& streamId : _consuming->closeAllConsumers())
      if (delegate) delegate->removeStream(streamId);
  }
  _transports->closeUnusedIn(mode);
}

Task<void> ModeChanging::performChangeModeOnServer(Mode mode, std::optional<SpanScope> span) {
  const Dictionary reply = co_await _context->socketRequestHandler->changeMode(mode);
  const auto status = isStatusOK(reply);
  if (status.ok) {
    trace("Change mode request sent successfully", {}, span);
    co_return;
  }
  const auto failure = status.failure.empty() ? "N/A" : status.failure;
  traceError("Error in changeMode() -> " + failure, {}, span);
  throw ModeChangeFailure(ModeChangeFailure::Kind::refused,
                          dictionary(reply, "data")
                              ? "Change mode to " + std::string(wireText(mode)) + " failed."
                              : "Unknown error while changing mode");
}

}  // namespace kestrova
