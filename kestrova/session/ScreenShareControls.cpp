#include <kestrova/media/BroadcastCapturer.h>
#include <kestrova/model/RoomClientError.h>
#include <kestrova/platform/Await.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/session/ScreenShareControls.h>
#include <kestrova/tracing/Trace.h>

#include <system_error>
#include <utility>

namespace kestrova {
namespace {

constexpr const char* startNotification = "kestrova.flutter.startScreenShare";
constexpr const char* stopNotification = "kestrova.flutter.stopScreenShare";

}  // namespace

ScreenShareControls::ScreenShareControls(std::shared_ptr<MeetingContext> context)
    : _context(std::move(context)), _screen(Platform::current()->screenSharing) {}

ScreenShareControls::~ScreenShareControls() {
  endBroadcast();
}

// ---- Toggles -----------------------------------------------------------------------------------

void ScreenShareControls::enableScreenShare() {
  Number number = 0;
  {
    std::scoped_lock held(_stateLock);
    if (_isOver) return;
    if (!std::exchange(_isWished, true)) number = ++_number;
  }
  if (number == 0) {
    constexpr auto* refusal = "Error in enableScreenShare() -> Screen share is already enabled.";
    return traceError(refusal, {{"error", refusal}});
  }
  spawn(shared_from_this(), beginInTurn(number));
}

void ScreenShareControls::disableScreenShare() {
  Number number = 0;
  bool wasWished = false;
  {
    std::scoped_lock held(_stateLock);
    wasWished = std::exchange(_isWished, false);
    number = _number;
  }
  silence();
  if (wasWished) endProgram(number);
  spawn(shared_from_this(), wasWished ? stop(number, std::nullopt) : refuseToStop());
}

bool ScreenShareControls::isWished(Number number) const {
  std::scoped_lock held(_stateLock);
  return _isWished && _number == number;
}

bool ScreenShareControls::isScreenSharingActive() const {
  std::scoped_lock held(_stateLock);
  return _isScreenSharingActive;
}

void ScreenShareControls::report(const KestrovaError& error) {
  if (!_context->connections->isOver()) _context->onError(error);
}

// ---- The handshake with the program ------------------------------------------------------------

Task<void> ScreenShareControls::beginInTurn(Number number) {
  const auto turn = co_await _turns.acquire();
  bool isEarlierThere = false;
  {
    std::scoped_lock held(_stateLock);
    isEarlierThere = _share.number != 0;
  }
  // Its end was asked for first, and may have got a later turn.
  if (isEarlierThere) {
    auto ending = endShare(std::nullopt);
    co_await std::move(ending);
  }
  // Where the dialogs of other systems want it.
  auto begun = [this, number](Completion<bool> done) {
    MainQueue::shared().async([this, number, done] {
      begin(number);
      done(true);
    });
  };
  co_await awaitCallback<bool>(std::move(begun));
}

void ScreenShareControls::begin(Number number) {
  if (!isWished(number)) return;
  if (!_screen) {
    if (stopShare(number)) report(KestrovaError::ERROR_GET_DISPLAY_MEDIA);
    return;
  }
  // Before anybody is asked for the screen.
  if (!sendsMedia(_context->sending->mode())) return fail(number, "the mode does not send");
  const auto extension = _screen->infoValue(screenSharingExtensionKey);
  const auto declared = _screen->infoValue(appGroupIdentifierKey);
  Share share{.number = number};
  // The program that is started here meets nobody else's socket.
  if (extension && declared) share.group = _screen->ownGroup(*declared);
  const auto group = share.group.empty() ? declared.value_or("") : share.group;
  _context->roomClient()->broadcast()->useGroup(group);
  _context->roomClient()->broadcast()->onEnded([weak = weak_from_this(), number] {
    if (const auto self = weak.lock()) self->stopShare(number);
  });
  if (!observe(share, group)) {
    letGo(std::move(share));
    return fail(number, "there is no folder of this user alone to meet in");
  }
  std::string problem;
  if (extension) {
    auto ended = [weak = weak_from_this(), number](const BroadcastEnd& end) {
      if (const auto self = weak.lock()) self->programEnded(number, end);
    };
    try {
      share.program = _screen->showBroadcastPicker(*extension, group, std::move(ended));
      if (!share.program) problem = "there is no program " + *extension;
    } catch (const std::system_error& error) {
      problem = error.what();
    }
  }
  {
    std::scoped_lock held(_stateLock);
    if (_isWished && _number == number) std::swap(_share, share);
  }
  letGo(std::move(share));  // where it was switched off meanwhile
  if (!problem.empty()) fail(number, problem);
}

bool ScreenShareControls::observe(Share& share, const std::string& group) {
  const auto container = _screen->container(group);
  if (!container) return false;
  const auto center = _screen->notifications();
  const auto number = share.number;
  share.startObserver =
      center->addObserver(*container, startNotification, [weak = weak_from_this(), number] {
        if (const auto self = weak.lock()) self->startScreenShare(number);
      });
  share.stopObserver =
      center->addObserver(*container, stopNotification, [weak = weak_from_this(), number] {
        if (const auto self = weak.lock()) self->stopShare(number);
      });
  return share.startObserver && share.stopObserver;
}

void ScreenShareControls::startScreenShare(Number number) {
  if (!isWished(number)) return;
  spawn(shared_from_this(), publish(number, std::nullopt));
}

bool ScreenShareControls::stopShare(Number number) {
  {
    std::scoped_lock held(_stateLock);
    if (_number != number || !std::exchange(_isWished, false)) return false;
  }
  silence();
  spawn(shared_from_this(), stop(number, std::nullopt));
  return true;
}

/// Whoever hears of it may switch it on again at once.
void ScreenShareControls::fail(Number number, const std::string& cause) {
  traceError("The screen can't be shared", {{"error", cause}});
  if (stopShare(number)) report(KestrovaError::ERROR_SCREENSHARE_PRODUCE_FAILED.withCause(cause));
}

void ScreenShareControls::programEnded(Number number, const BroadcastEnd& end) {
  using Kind = BroadcastEnd::Kind;
  // Even where its connection ended first, and the share with that.
  if (end.kind == Kind::failed)
    traceError("The program that sends the screen failed", {{"error", end.cause}});
  bool hasStarted = false;
  {
    std::scoped_lock held(_stateLock);
    hasStarted = _share.number == number && _share.hasStarted;
  }
  if (!stopShare(number)) return;
  if (end.kind == Kind::refused) {
    traceError(KestrovaError::ERROR_GET_DISPLAY_MEDIA_PERMISSION_DENIED.message());
    report(KestrovaError::ERROR_GET_DISPLAY_MEDIA_PERMISSION_DENIED.withCause(end.cause));
  } else if (end.kind != Kind::finished && !hasStarted) {
    report(KestrovaError::ERROR_SCREENSHARE_PRODUCE_FAILED.withCause(end.cause));
  }
}

// ---- Publication -------------------------------------------------------------------------------

Task<void> ScreenShareControls::publish(Number number, std::optional<SpanScope> parentSpan) {
  const auto turn = co_await _turns.acquire();
  const auto connection = _context->connections->current();
  {
    std::scoped_lock held(_stateLock);
    if (!_isWished || _number != number) co_return;
    _share.hasStarted = true;
    if (_share.producer && _share.connection == connection) co_return;  // said twice
  }
  auto publishing = publishNow(number, connection, std::move(parentSpan));
  co_await std::move(publishing);
}

Task<bool> ScreenShareControls::publishNow(Number number, Connection connection,
                                           std::optional<SpanScope> parentSpan) {
  // Away, or back and not joined yet: the return publishes it.
  if (!connection.stands() || !_context->isJoinedOn(connection)) co_return false;
  std::shared_ptr<Producer> producer;
  bool isReported = false;
  std::string cause;
  try {
    auto producing = _context->roomClient()->publishing()->produceLocalScreenShare(
        connection, std::move(parentSpan));
    producer = co_await std::move(producing);
  } catch (const RoomClientFailure&) {
    isReported = true;  // where it arose
  } catch (const std::exception& error) {
    cause = error.what();
    traceError(cause);
  }
  if (!producer) {
    if (connection.isCurrent() && stopShare(number) && !isReported)
      report(KestrovaError::ERROR_SCREENSHARE_PRODUCE_FAILED.withCause(cause));
    co_return false;
  }
  if (_context->connections->isOver()) co_return false;
  // Where the connection went in the last moment, too: the return clears it.
  bool isWanted = false;
  {
    std::scoped_lock held(_stateLock);
    if (_share.number != number) co_return false;  // the meeting has ended it
    isWanted = _isWished && _number == number;
    _isScreenSharingActive = true;
    _share.producer = producer;
    _share.connection = connection;
  }
  if (!isWanted) producer->track()->setEnabled(false);  // a stop waits for the turn
  _context->localParticipant->addStream(std::make_shared<MediaStream>(producer));
  co_return connection.isCurrent();
}

Task<void> ScreenShareControls::clearEarlier(Connection connection) {
  const auto self = shared_from_this();
  const auto turn = co_await _turns.acquire();
  {
    std::scoped_lock held(_stateLock);
    if (!connection.isCurrent() || !_share.producer || _share.connection == connection) co_return;
    _share.producer.reset();
    _share.connection.reset();
    _isScreenSharingActive = false;
  }
  const auto gone = co_await _context->roomClient()->publishing()->forgetLocalScreenShare();
  if (gone) _context->localParticipant->removeStream(*gone);
}

Task<void> ScreenShareControls::resume(Connection connection, std::optional<SpanScope> parentSpan) {
  const auto self = shared_from_this();
  const auto turn = co_await _turns.acquire();
  Number number = 0;
  {
    std::scoped_lock held(_stateLock);
    if (!_isWished || !_share.hasStarted || _share.producer) co_return;
    number = _number;
  }
  auto publishing = publishNow(number, std::move(connection), std::move(parentSpan));
  co_await std::move(publishing);
}

// ---- The end -----------------------------------------------------------------------------------

void ScreenShareControls::silence() {
  std::shared_ptr<Producer> producer;
  {
    std::scoped_lock held(_stateLock);
    producer = _share.producer;
  }
  if (producer) producer->track()->setEnabled(false);
}

void ScreenShareControls::endProgram(Number number) {
  std::unique_ptr<BroadcastProgram> program;
  std::scoped_lock held(_stateLock);
  if (_share.number == number) program.swap(_share.program);
}

Task<void> ScreenShareControls::stopForMode(Connection connection,
                                            std::optional<SpanScope> parentSpan) {
  const auto self = shared_from_this();
  ScopedSpan span("Disabling Screen Share", {}, parentSpan);
  if (!connection.isCurrent()) co_return;
  Number number = 0;
  {
    std::scoped_lock held(_stateLock);
    if (!_isWished && !_isScreenSharingActive) co_return;
    _isWished = false;
    number = _number;
  }
  silence();
  endProgram(number);
  auto stopping = stop(number, span.scope());
  co_await std::move(stopping);
}

Task<void> ScreenShareControls::stop(Number number, std::optional<SpanScope> parentSpan) {
  const auto self = shared_from_this();
  const auto turn = co_await _turns.acquire();
  {
    std::scoped_lock held(_stateLock);
    if (_share.number != number) co_return;  // it had not begun, or has ended
  }
  auto ending = endShare(std::move(parentSpan));
  co_await std::move(ending);
}

Task<void> ScreenShareControls::endShare(std::optional<SpanScope> parentSpan) {
  bool isPublished = false;
  {
    std::scoped_lock held(_stateLock);
    isPublished = _share.producer != nullptr;
  }
  if (isPublished) {
    auto closing = closePublication(std::move(parentSpan));
    co_await std::move(closing);
  }
  endBroadcast();
  trace("Screen share disabled successfully");
}

/// Nothing is shared, or it is being ended already: the trace says so.
Task<void> ScreenShareControls::refuseToStop() {
  const auto turn = co_await _turns.acquire();
  {
    std::scoped_lock held(_stateLock);
    if (_isWished) co_return;
  }
  auto closing = closePublication(std::nullopt);
  co_await std::move(closing);
}

Task<void> ScreenShareControls::closePublication(std::optional<SpanScope> parentSpan) {
  std::optional<Connection> telling;
  std::string lost;
  {
    std::scoped_lock held(_stateLock);
    if (!_share.connection || _share.connection->isCurrent())
      telling = _context->connections->current();
  }
  try {
    auto closing =
        _context->roomClient()->publishing()->closeLocalScreenShare(telling, std::move(parentSpan));
    lost = co_await std::move(closing);
  } catch (const RoomClientFailure&) {
    // Nothing was shared, and the trace says so.
  }
  if (!lost.empty()) _context->localParticipant->removeStream(lost);
}

ScreenShareControls::Share ScreenShareControls::takeShare() {
  Share share;
  std::scoped_lock held(_stateLock);
  std::swap(_share, share);
  _isScreenSharingActive = false;
  return share;
}

/// The socket goes before the folder in which it is.
void ScreenShareControls::endBroadcast() {
  auto share = takeShare();
  if (const auto client = _context->existingRoomClient())
    client->broadcast()->removeBroadcastTrack();
  letGo(std::move(share));
}

void ScreenShareControls::letGo(Share share) {
  const auto group = std::move(share.group);
  share = {};
  if (!group.empty() && _screen) _screen->removeContainer(group);
}

void ScreenShareControls::end() {
  silence();
  {
    std::scoped_lock held(_stateLock);
    _isWished = false;
    _isOver = true;
  }
  endBroadcast();
}

}  // namespace kestrova
