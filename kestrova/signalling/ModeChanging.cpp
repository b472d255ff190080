#include <kestrova/signalling/ModeChanging.h>
#include <kestrova/signalling/Response.h>
#include <kestrova/tracing/Trace.h>

#include <exception>
#include <string>

namespace kestrova {

Task<void> ModeChanging::changeMode(Mode mode, Connection connection,
                                    std::optional<SpanScope> changeModeSpan) {
  const auto self = shared_from_this();
  const auto previous = _context->sending->mode();
  if (mode == previous) {
    const auto described = std::string(wireText(mode)) + " Mode.";
    const auto cause = "Participant is already in " + described;
    traceError("Error in changeMode() -> Already in " + described, {}, changeModeSpan);
    traceError(cause, {}, changeModeSpan);
    throw ModeChangeFailure(ModeChangeFailure::Kind::alreadySameMode, cause,
                            "already in this mode");
  }
  std::exception_ptr refusal;
  try {
    auto setup = _transports->setupDeviceAndTransports(true, changeModeSpan, sendsMedia(mode),
                                                       receivesMedia(mode), connection);
    co_await std::move(setup);
    auto asking = performChangeModeOnServer(mode, changeModeSpan, connection);
    co_await std::move(asking);
    _context->sending->setMode(mode);
  } catch (...) {
    refusal = std::current_exception();
  }
  if (connection.isCurrent()) closeUnused();
  if (refusal) std::rethrow_exception(refusal);
}

void ModeChanging::closeUnused() {
  const auto mode = _context->sending->mode();
  if (!receivesMedia(mode)) removeStreams(_context, _consuming->letGoOfAllConsumers());
  _transports->closeUnusedIn(mode);
}

Task<void> ModeChanging::performChangeModeOnServer(Mode mode, std::optional<SpanScope> span,
                                                   Connection connection) {
  const Dictionary reply = co_await _context->socketRequestHandler->changeMode(mode, connection);
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
                              : "Unknown error while changing mode",
                          status.cause);
}

}  // namespace kestrova
