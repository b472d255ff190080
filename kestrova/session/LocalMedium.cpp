#include <kestrova/model/RoomClientError.h>
#include <kestrova/session/LocalMedium.h>
#include <kestrova/tracing/Trace.h>

#include <utility>

namespace kestrova {
namespace {

/// Gives the application's toggle back when the operation that took it ends, in whatever way.
class ToggleRelease {
public:
  explicit ToggleRelease(MediumState& state) : _state(state) {}
  ~ToggleRelease() { _state.release(); }
  ToggleRelease(const ToggleRelease&) = delete;
  ToggleRelease& operator=(const ToggleRelease&) = delete;

private:
  MediumState& _state;
};

/// Ends a track that the library captures for the application; one that the application feeds is
/// the application's, and may be published again.
void disposeOwnCapture(const std::shared_ptr<CustomRTCMediaStream>& stream) {
  if (stream && stream->capturer()) MediaCapturer::disposeCustomTrack(stream);
}

}  // namespace

LocalMedium::LocalMedium(std::shared_ptr<MeetingContext> context, const Texts& texts, bool wished)
    : _context(std::move(context)), _state(wished), _texts(texts) {}

// ---- Toggles -----------------------------------------------------------------------------------

void LocalMedium::turnOn(Stream custom) {
  const auto refusal = _state.ask(true, _texts.on);
  if (!refusal) {
    custom = valid(std::move(custom));
    setCustomStream(custom);
    return spawn(shared_from_this(), turnOnNow(std::move(custom)));
  }
  if (_state.wished()) setSilent(false);  // an "off" that was not carried out yet is taken back
  traceError(*refusal, {{"error", *refusal}});
}

void LocalMedium::turnOff() {
  const bool wasWished = _state.wished();
  const auto refusal = _state.ask(false, _texts.off);
  if (!_state.wished()) {
    setSilent(true);
    if (wasWished) turnedOff();
  }
  if (refusal) return traceError(*refusal, {{"error", *refusal}});
  spawn(shared_from_this(), turnOffNow());
}

Task<void> LocalMedium::turnOnNow(Stream custom) {
  const ToggleRelease release(_state);
  const auto turn = co_await _turns.acquire();
  const auto connection = _context->connections->current();
  if (isRunning(connection)) {
    // The library started it a moment ago, as it was wished by then.
    if (!custom || runs(trackOf(*custom))) {
      _state.started();
      co_return;
    }
    ScopedSpan span(_texts.disabling);
    co_await stop(span.scope());
  }
  auto starting = start(std::move(custom), connection, std::nullopt);
  const auto outcome = co_await std::move(starting);
  if (outcome == Outcome::published) _state.started();
  if (outcome == Outcome::failed) _state.ended();
}

Task<void> LocalMedium::turnOffNow() {
  const ToggleRelease release(_state);
  const auto turn = co_await _turns.acquire();
  co_await switchOff();
  _state.ended();
}

Task<void> LocalMedium::switchOff() {
  ScopedSpan span(_texts.disabling);
  co_await stop(span.scope());
  if (_state.wished()) co_return;  // taken back meanwhile
  span.event(_texts.disposing);
  releaseCustomStream();
}

void LocalMedium::releaseCustomStream() {
  disposeOwnCapture(customStream());
  setCustomStream(nullptr);
}

// ---- What the library does of itself -----------------------------------------------------------

Task<void> LocalMedium::clearEarlier(Connection connection) {
  const auto self = shared_from_this();
  const auto turn = co_await _turns.acquire();
  if (!connection.isCurrent() || isRunning(connection)) co_return;
  if (const auto gone = co_await cleanup()) _context->localParticipant->removeStream(*gone);
  auto earlier = forgetTrack();
  co_await releaseCapture(std::move(earlier.track));
}

Task<void> LocalMedium::startWished(Mode mode, Connection connection,
                                    std::optional<SpanScope> parentSpan) {
  const auto self = shared_from_this();
  const auto turn = co_await _turns.acquire();
  std::optional<ToggleLoan> loan;
  if (_texts.holdsToggle && _state.take()) loan.emplace(_state);
  if (!connection.isCurrent()) co_return;
  if (!sendsMedia(mode) || !_state.wished()) {
    const auto& settings = _context->settings;
    if (!(_texts.isAudio ? settings.micEnabled : settings.webcamEnabled)) co_return;
    ScopedSpan span(_texts.disabling, {}, parentSpan);
    co_await stop(span.scope());
    co_return;
  }
  auto starting = startWhileWished(connection, std::move(parentSpan));
  co_await std::move(starting);
}

Task<void> LocalMedium::startWhileWished(Connection connection,
                                         std::optional<SpanScope> parentSpan) {
  while (_state.wished() && !isRunning(connection)) {
    auto starting = start(valid(customStream()), connection, parentSpan);
    const auto outcome = co_await std::move(starting);
    if (outcome == Outcome::interrupted) co_return;  // the return starts it
    if (outcome == Outcome::failed) _state.ended();
    // Switched off meanwhile: by a toggle that waits for its turn, or here.
    if (outcome == Outcome::published && !_state.started() && !_state.isApplicationToggling())
      co_await switchOff();
  }
  if (isRunning(connection)) co_return;
  _state.stopped();
  if (!_state.wished() && !_state.isApplicationToggling()) releaseCustomStream();
}

Task<void> LocalMedium::stopForMode(Connection connection, std::optional<SpanScope> parentSpan) {
  const auto self = shared_from_this();
  const auto turn = co_await _turns.acquire();
  ScopedSpan span(_texts.disabling, {}, parentSpan);
  if (connection.isCurrent()) co_await stop(span.scope());
}

void LocalMedium::captureEnded(const Track& track, const std::string& error) {
  {
    std::scoped_lock held(_runningLock);
    if (_running.track != track) return;
    _running.hasFailed = true;
    _running.failure = error;
  }
  spawn(shared_from_this(), endAfterFailure());
}

Task<void> LocalMedium::endAfterFailure() {
  const auto turn = co_await _turns.acquire();
  if (!hasFailed()) co_return;  // the start that was under way met the failure
  const auto ended = _texts.trackEnded.withCause(failure());
  std::optional<ToggleLoan> loan;
  if (_state.take()) loan.emplace(_state);
  {
    ScopedSpan span(_texts.disabling);
    co_await stop(span.scope());
  }
  _state.ended();
  report(ended);
}

// ---- Capture and publication -------------------------------------------------------------------

Task<LocalMedium::Outcome> LocalMedium::start(Stream custom, Connection connection,
                                              std::optional<SpanScope> parentSpan) {
  // Away, or back and not joined yet: the join starts what is wished.
  if (!connection.stands() || !_context->isJoinedOn(connection)) co_return Outcome::interrupted;
  watch(custom);
  const auto described =
      custom ? custom->toJsonString(_texts.isAudio) : std::string("Custom Track not provided");
  const bool allowed = permission() == AuthorisationStatus::authorized;
  ScopedSpan span(custom ? _texts.enablingCustom : _texts.enabling,
                  {{_texts.customKey, described}, {_texts.permissionKey, allowed}}, parentSpan);
  if (!permitted(span.scope())) co_return told(span, Outcome::failed);
  const bool isCaptured = !custom || custom->capturer();
  if (custom)
    record(custom);
  else {
    auto capturing = capture(connection, span.scope());
    custom = co_await std::move(capturing);
  }
  if (!custom)
    co_return told(span, connection.isCurrent() ? Outcome::failed : Outcome::interrupted);

  setTrack(trackOf(*custom), isCaptured);
  if (!connection.isCurrent()) co_return told(span, co_await giveUp(Outcome::interrupted));
  if (!_state.wished()) co_return told(span, co_await giveUp(Outcome::unwished));
  const bool isPublished = co_await publish(std::move(custom), connection, span.scope());
  auto judging = judge(isPublished, connection, span.scope());
  co_return told(span, co_await std::move(judging));
}

LocalMedium::Outcome LocalMedium::told(ScopedSpan& span, Outcome outcome) {
  if (outcome == Outcome::failed) span.interrupt("not published");
  if (outcome == Outcome::unwished) span.interrupt("switched off meanwhile");
  if (outcome == Outcome::interrupted) span.interruptByDrop();
  return outcome;
}

Task<bool> LocalMedium::publish(Stream stream, Connection connection, SpanScope span) {
  std::shared_ptr<Producer> producer;
  try {
    auto producing = produce(std::move(stream), connection, span);
    producer = co_await std::move(producing);
  } catch (const RoomClientFailure&) {
    // Traced and reported where it arose.
  } catch (const std::exception& error) {
    traceError(error.what(), {}, span);
  }
  if (!producer) co_return false;
  bool isSilenced = false;
  {
    std::scoped_lock held(_runningLock);
    _running.connection = connection;
    _running.producer = producer;
    isSilenced = _running.isSilenced;
  }
  if (isSilenced) producer->track()->setEnabled(false);  // publishing may have enabled it
  _context->localParticipant->addStream(std::make_shared<MediaStream>(producer));
  published();
  co_return true;
}

/// What came of a publication: a device that failed meanwhile makes it a failure, too.
Task<LocalMedium::Outcome> LocalMedium::judge(bool isPublished, Connection connection,
                                              SpanScope span) {
  if (!connection.isCurrent()) {
    // What was published in the last moment is cleared by the return.
    if (isPublished && !_context->connections->isOver()) co_return Outcome::interrupted;
    if (isPublished) removePublished();
    co_return co_await giveUp(Outcome::interrupted);
  }
  if (hasFailed()) {
    const auto ended = _texts.trackEnded.withCause(failure());
    co_await stop(span);
    report(ended);
    co_return Outcome::failed;
  }
  if (isPublished) co_return Outcome::published;
  if (!_state.wished()) co_return co_await giveUp(Outcome::unwished);
  traceError(_texts.publishFailed, {}, span);
  co_return co_await giveUp(Outcome::failed);
}

/// The meeting ended while it was being published: nobody else takes it away any more.
void LocalMedium::removePublished() {
  std::shared_ptr<Producer> producer;
  {
    std::scoped_lock held(_runningLock);
    producer = _running.producer;
  }
  if (producer) _context->localParticipant->removeStream(producer->id());
}

/// What nobody gets to see or hear is not captured either.
Task<LocalMedium::Outcome> LocalMedium::giveUp(Outcome outcome) {
  auto given = forgetTrack();
  co_await releaseCapture(std::move(given.track));
  co_return outcome;
}

Task<void> LocalMedium::stop(SpanScope span) {
  std::optional<Connection> telling;
  {
    std::scoped_lock held(_runningLock);
    // The service has forgotten what an earlier connection published.
    if (!_running.connection || _running.connection->isCurrent())
      telling = _context->connections->current();
  }
  try {
    auto closing = close(telling, span);
    _context->localParticipant->removeStream(co_await std::move(closing));
  } catch (const RoomClientFailure&) {
    // There was none to stop.
  }
  auto stopped = forgetTrack();
  co_await releaseCapture(std::move(stopped.track));
}

void LocalMedium::report(const KestrovaError& error) {
  if (!_context->connections->isOver()) _context->onError(error);
}

bool LocalMedium::permitted(const SpanScope& span) {
  const auto status = permission();
  if (status == AuthorisationStatus::authorized || status == AuthorisationStatus::notDetermined)
    return true;
  const auto line = _texts.permissionDenied.message();
  traceError(line, {}, span);
  report(_texts.permissionDenied);
  return false;
}

void LocalMedium::watch(const Stream& custom) {
  const auto capturer = custom ? custom->capturer() : nullptr;
  if (!capturer) return;
  capturer->onCaptureFailed(
      [weak = weak_from_this()](MediaKind, const Track& track, const std::string& error) {
        if (const auto self = weak.lock()) self->captureEnded(track, error);
      });
}

LocalMedium::Stream LocalMedium::valid(Stream stream) {
  if (!stream || trackOf(*stream)) return stream;
  setCustomStream(nullptr);
  report(_texts.invalidTrack);
  return nullptr;
}

LocalMedium::Stream LocalMedium::liveCustomStream() const {
  auto stream = customStream();
  return stream && trackOf(*stream) ? stream : nullptr;
}

// ---- What runs ---------------------------------------------------------------------------------

bool LocalMedium::isRunning(const Connection& connection) const {
  std::shared_ptr<Producer> producer;
  {
    std::scoped_lock held(_runningLock);
    if (_running.connection == connection) producer = _running.producer;
  }
  return producer && !producer->closed();
}

bool LocalMedium::runs(const Track& track) const {
  std::scoped_lock held(_runningLock);
  return _running.track == track;
}

bool LocalMedium::isPublished() const {
  std::scoped_lock held(_runningLock);
  return _running.producer != nullptr;
}

bool LocalMedium::hasFailed() const {
  Running running;
  {
    std::scoped_lock held(_runningLock);
    running = _running;
  }
  // One that ended before it was known here was disabled by its capturer.
  const bool isDead =
      running.isCaptured && !running.isSilenced && running.track && !running.track->isEnabled();
  return running.hasFailed || isDead;
}

std::string LocalMedium::failure() const {
  std::scoped_lock held(_runningLock);
  return _running.failure;
}

void LocalMedium::setTrack(Track track, bool isCaptured) {
  Running earlier{.track = std::move(track), .isCaptured = isCaptured};
  std::scoped_lock held(_runningLock);
  std::swap(_running, earlier);
}

/// From now on, or no longer, whatever the track's source gives.
void LocalMedium::setSilent(bool silent) {
  Track track;
  {
    std::scoped_lock held(_runningLock);
    if (_running.isSilenced == silent) return;
    track = _running.track;
    _running.isSilenced = silent && track;
  }
  if (track) track->setEnabled(!silent);
}

/// The application gets its own track back as it was.
LocalMedium::Running LocalMedium::forgetTrack() {
  Running running;
  {
    std::scoped_lock held(_runningLock);
    std::swap(running, _running);
  }
  if (running.isSilenced && !running.isCaptured) running.track->setEnabled(true);
  return running;
}

}  // namespace kestrova
