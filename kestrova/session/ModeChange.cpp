#include <kestrova/session/ModeChange.h>
#include <kestrova/tracing/Trace.h>

namespace kestrova {

void ModeChange::changeMode(Mode mode) {
  if (mode < Mode::CONFERENCE || mode > Mode::RECV_ONLY) {
    _context->onError(KestrovaError::ERROR_INVALID_MODE);
    return;
  }
  spawn(shared_from_this(), change(mode));
}

Task<void> ModeChange::change(Mode mode) {
  const auto turn = co_await _context->roads.acquire();
  const auto connection = _context->connections->current();
  if (_context->connections->isOver()) co_return;
  if (!connection.stands() || !_context->isJoinedOn(connection)) {
    // Lost, or on its way back: the join brings the media of the mode that is.
    _context->onError(
        KestrovaError::CHANGE_MODE_FAILED.withCause("the connection is being made anew"));
    co_return;
  }
  const auto previous = _context->sending->mode();
  const auto wanted = std::string(wireText(mode));
  ScopedSpan span(
      [&] { return "Changing Mode: " + std::string(wireText(previous)) + " to " + wanted; });
  const bool stopsSending = sendsMedia(previous) && !sendsMedia(mode);
  if (stopsSending) {
    auto stopping = _media->stopPublishing(connection, span.scope());
    co_await std::move(stopping);
  }

  bool refused = false;
  std::string cause;
  try {
    auto changing = _context->roomClient()->changeMode(mode, connection, span.scope());
    co_await std::move(changing);
  } catch (const ModeChangeFailure& failure) {
    span.fail(failure.what());
    cause = failure.cause();
    refused = true;
  } catch (const std::exception& error) {
    span.fail(error.what());
    cause = error.what();
    refused = true;
  }
  if (!refused && !connection.isCurrent()) span.interruptByDrop();
  if (_context->connections->isOver()) co_return;
  if (refused) {
    _context->onError(KestrovaError::CHANGE_MODE_FAILED.withCause(std::move(cause)));
  } else {
    _context->localParticipant->setMode(mode);
    span.event("Changed mode to " + wanted + " successfully");
    if (!sendsMedia(mode)) {
      // What was switched on meanwhile has lost its transport.
      auto stopping = _media->stopStragglers(connection, span.scope());
      co_await std::move(stopping);
    }
  }
  // Restores what was stopped in vain, too; after a drop the return does.
  const bool startsSending = !refused && !sendsMedia(previous) && sendsMedia(mode);
  if (!connection.isCurrent() || !(startsSending || (refused && stopsSending))) co_return;
  auto starting = _media->startWishedMedia(_context->sending->mode(), connection, span.scope());
  co_await std::move(starting);
}

}  // namespace kestrova
