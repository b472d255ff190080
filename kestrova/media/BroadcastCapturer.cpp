#include <kestrova/media/BroadcastCapturer.h>
#include <kestrova/platform/Task.h>
#include <kestrova/tracing/Trace.h>

#include <chrono>
#include <utility>

namespace kestrova {
namespace {

/// From 1970 to the first moment of 2001, from which absolute times are counted.
constexpr std::int64_t absoluteTimeStartMs = 978'307'200'000;

}  // namespace

std::shared_ptr<BroadcastCapturer> BroadcastCapturer::make() {
  return std::shared_ptr<BroadcastCapturer>(new BroadcastCapturer(Platform::current(), mainBridge));
}

std::shared_ptr<iOSBroadcastScreenCapturer> iOSBroadcastScreenCapturer::make() {
  return std::shared_ptr<iOSBroadcastScreenCapturer>(
      new iOSBroadcastScreenCapturer(Platform::current()));
}

BroadcastCapturer::BroadcastCapturer(std::shared_ptr<const Platform> platform,
                                     const BridgeRules& rules)
    : _platform(std::move(platform)),
      _rules(rules),
      _peerConnectionFactory(_platform->peerConnectionFactory()),
      _videoSource(_peerConnectionFactory->videoSourceForScreenCast()) {}

BroadcastCapturer::~BroadcastCapturer() {
  if (_socketconnection) _socketconnection->close();
}

std::optional<std::string> BroadcastCapturer::lookUpAppGroupIdentifier() const {
  {
    std::scoped_lock held(_sourceLock);
    if (!_group.empty()) return _group;
  }
  const auto& screen = _platform->screenSharing;
  return screen ? screen->infoValue(appGroupIdentifierKey) : std::nullopt;
}

std::optional<std::string> BroadcastCapturer::filePathForIdentifier(
    const std::string& identifier) const {
  const auto& screen = _platform->screenSharing;
  const auto container = screen ? screen->container(identifier) : std::nullopt;
  return container ? std::optional(*container + "/" + socketFileName) : std::nullopt;
}

void BroadcastCapturer::useGroup(std::string identifier) {
  std::scoped_lock held(_sourceLock);
  _group = std::move(identifier);
}

void BroadcastCapturer::onEnded(std::function<void()> handler) {
  std::scoped_lock held(_sourceLock);
  _ended.swap(handler);
}

// ---- The track ---------------------------------------------------------------------------------

Task<std::shared_ptr<RTCVideoTrack>> BroadcastCapturer::createBroadcastTrack() {
  {
    std::scoped_lock held(_sourceLock);
    if (_track && _socketconnection && _socketconnection->isOpen()) co_return _track;
  }
  const auto identifier = lookUpAppGroupIdentifier();
  const auto path = identifier ? filePathForIdentifier(*identifier) : std::nullopt;
  if (!path) {
    traceError("Failed to get app group identifier or file path for screen share");
    co_return trackOnSource();
  }
  const auto& screen = _platform->screenSharing;
  const auto reader = std::make_shared<SocketConnectionFrameReader>(screen->makeRenderer(), _rules);
  const auto connection = BroadcastSocketConnection::make(*path, reader, screen->sockets(), _rules);
  if (!connection) {
    traceError("Failed to create broadcast for screen share");
    co_return trackOnSource();
  }
  reader->connection(connection);
  connectReader(reader);
  {
    std::scoped_lock held(_sourceLock);
    _framereader = reader;
    _socketconnection = connection;
  }
  if (!connection->open()) {
    connection->close();
    traceDebug("The socket for the screen's pictures can't be opened", {{"path", *path}});
  }
  co_return trackOnSource();
}

std::shared_ptr<RTCVideoTrack> BroadcastCapturer::trackOnSource() {
  std::scoped_lock held(_sourceLock);
  _track = _peerConnectionFactory->videoTrack(_videoSource, broadcastTrackId);
  _track->setEnabled(true);
  return _track;
}

void BroadcastCapturer::connectReader(const std::shared_ptr<SocketConnectionFrameReader>& reader) {
  const auto weak = weak_from_this();
  reader->didCapture = [weak](const std::shared_ptr<PixelBuffer>& buffer, int rotation) {
    if (const auto self = weak.lock()) self->deliver(buffer, rotation);
  };
  reader->isQuiet = [weak] {
    if (const auto self = weak.lock()) self->repeat();
  };
  reader->didEnd = [weak, ending = reader.get()] {
    if (const auto self = weak.lock()) self->ended(ending);
  };
}

bool BroadcastCapturer::isBroadcasting() const {
  std::scoped_lock held(_sourceLock);
  return _socketconnection && _socketconnection->isOpen();
}

void BroadcastCapturer::removeBroadcastTrack() {
  removeBroadcastTrack(nullptr);
}

void BroadcastCapturer::removeBroadcastTrack(const std::shared_ptr<RTCMediaStreamTrack>& only) {
  auto fresh = _peerConnectionFactory->videoSourceForScreenCast();
  std::shared_ptr<SocketConnectionFrameReader> reader;
  std::shared_ptr<BroadcastSocketConnection> connection;
  std::shared_ptr<RTCVideoTrack> track;
  VideoFrame last;
  {
    std::scoped_lock held(_sourceLock);
    if (only && _track != only) return;
    reader.swap(_framereader);
    connection.swap(_socketconnection);
    track.swap(_track);
    _videoSource.swap(fresh);
    std::swap(_last, last);
    _firstTimeUs.reset();
  }
  if (reader) reader->stopCapture();
  if (connection) connection->close();
  if (track) track->setEnabled(false);
}

// ---- Pictures, on the bridge's thread ----------------------------------------------------------

std::int64_t BroadcastCapturer::timeStampUs() {
  const auto& clock = *_platform->scheduler;
  if (!_rules.hasRelativeTime) return (clock.wallClockMs() - absoluteTimeStartMs) * 1000;
  const auto now =
      std::chrono::duration_cast<std::chrono::microseconds>(clock.now().time_since_epoch()).count();
  if (!_firstTimeUs) _firstTimeUs = now;
  return now - *_firstTimeUs;
}

void BroadcastCapturer::deliver(const std::shared_ptr<PixelBuffer>& buffer, int rotation) {
  std::shared_ptr<RTCVideoSource> source;
  VideoFrame frame{.buffer = buffer, .rotation = _rules.rotates ? rotation : 0};
  {
    std::scoped_lock held(_sourceLock);
    if (!_socketconnection) return;
    frame.timestampUs = timeStampUs();
    source = _videoSource;
    _last = frame;
  }
  source->onFrame(frame);
}

void BroadcastCapturer::repeat() {
  std::shared_ptr<RTCVideoSource> source;
  VideoFrame frame;
  {
    std::scoped_lock held(_sourceLock);
    if (!_last.buffer || !_socketconnection) return;
    _last.timestampUs = timeStampUs();
    frame = _last;
    source = _videoSource;
  }
  source->onFrame(frame);
}

/// The handler is of the present share, which the end of an earlier one does not concern.
void BroadcastCapturer::ended(const SocketConnectionFrameReader* reader) {
  std::function<void()> handler;
  {
    std::scoped_lock held(_sourceLock);
    if (_framereader.get() != reader) return;
    handler = _ended;
  }
  if (handler) handler();
}

}  // namespace kestrova
