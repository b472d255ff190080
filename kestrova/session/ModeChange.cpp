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
  const auto turn = co_await _changes.acquire();
  const auto previous = _context->mode();
  const auto wanted = std::string(wireText(mode));
  ScopedSpan span(
      [&] { return "Changing Mode: " + std::string(wireText(previous)) + " to " + wanted; });
  const bool stopsSending = sendsMedia(previous) && !sendsMedia(mode);
  if (stopsSending) co_await _media->stopPublishing(span.scope());

  bool refused = false;
  try {
    auto changing = _context->roomClient()->changeMode(mode, span.scope());
    co_await std::move(changing);
  } catch (const ModeChangeFailure& failure) {
    span.fail(failure.what());
    refused = true;
  }
  if (refused) {
    _context->onError(KestrovaError::CHANGE_MODE_FAILED);
  } else {
    _context->setMode(mode);
    _context->localParticipant->setMode(mode);
    span.event("Changed mode to " + wanted + " successfully");
  }
  // Restores what was stopped in vain, too.
  const bool startsSending = !refused && !sendsMedia(previous) && sendsMedia(mode);
  if (_context->isOver() || !(startsSending || (refused && stopsSending))) co_return;
  auto starting = _media->startWishedMedia(_context->mode(), {}, span.scope());
  co_await std::move(starting);
}

}  // namespace kestrova
