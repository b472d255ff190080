#include <kestrova/signalling/Response.h>
#include <kestrova/signalling/RoomClient.h>
#include <kestrova/signalling/RoomClientError.h>
#include <kestrova/tracing/Trace.h>

#include <boost/asio/post.hpp>

#include <utility>

namespace kestrova {

std::shared_ptr<RoomClient> RoomClient::make(RoomClientOptions options) {
  std::shared_ptr<RoomClient> client(new RoomClient(std::move(options)));
  client->_context->socketRequestHandler->setDelegates(client, client, client);
  return client;
}

RoomClient::RoomClient(RoomClientOptions options)
    : _context(std::make_shared<RoomContext>(std::move(options))),
      _registry(std::make_shared<MediaRegistry>(_context->stateQueue)),
      _capturer(MediaCapturer::make()),
      _transports(std::make_shared<Transports>(_context, _registry)),
      _publishing(std::make_shared<Publishing>(_context, _registry, _transports, _capturer)),
      _consuming(std::make_shared<Consuming>(_context, _registry, _transports)),
      _joinSequence(std::make_shared<JoinSequence>(_context, _transports, _capturer)),
      _teardown(
          std::make_shared<Teardown>(_context, _registry, _transports, _publishing, _capturer)),
      _dispatcher(_context, _consuming) {}

RoomClient::~RoomClient() = default;

// ---- Joining and leaving -----------------------------------------------------------------------

Task<void> RoomClient::connect() {
  return _joinSequence->connect();
}

Task<void> RoomClient::setupDeviceAndTransports(bool isLoaded,
                                                std::optional<SpanScope> changeModeSpan,
                                                bool needToCreateSendTransport,
                                                bool needToCreateRecvTransport) {
  return _transports->setupDeviceAndTransports(
      isLoaded, std::move(changeModeSpan), needToCreateSendTransport, needToCreateRecvTransport);
}

Task<std::vector<std::string>> RoomClient::join(CameraPosition cameraPosition, bool isSwitchingRoom,
                                                Mode mode, bool isBatchingEnabled) {
  return _joinSequence->join(cameraPosition, isSwitchingRoom, mode, isBatchingEnabled);
}

Task<void> RoomClient::disconnect(LeaveReason leaveReason, bool closeSocket) {
  return _teardown->disconnect(leaveReason, closeSocket);
}

Task<void> RoomClient::closeRoom(std::optional<LeaveReason> leaveReason) {
  return _teardown->closeRoom(leaveReason);
}

Task<void> RoomClient::respondEntry(std::string peerId, std::string decision) {
  const auto self = shared_from_this();
  ScopedSpan span([&] { return "Responding Entry for " + peerId; });
  const Dictionary reply =
      co_await _context->socketRequestHandler->respondEntry(peerId, std::move(decision));
  if (const auto status = isStatusOK(reply); !status.ok) {
    span.fail("Respond entry failed for " + peerId + " with error: " + status.failure);
    if (auto delegate = _context->delegate())
      delegate->onError(KestrovaError::RESPOND_ENTRY_FAILED);
    co_return;
  }
  span.event("Entry responded successfully.");
}

Task<std::optional<std::string>> RoomClient::cleanupAudio() {
  const auto self = shared_from_this();
  if (!_registry->getProducerByKind(MediaKind::audio, false)) co_return std::nullopt;
  co_return co_await _publishing->closeLocalAudio(false, std::nullopt);
}

Task<std::optional<std::string>> RoomClient::cleanupVideo() {
  const auto self = shared_from_this();
  if (!_registry->getProducerByKind(MediaKind::video, false)) co_return std::nullopt;
  co_return co_await _publishing->closeLocalVideo(false, std::nullopt);
}

void RoomClient::cleanUpTracing() {
  _context->spans.clear();
  SdkTracer::shared().clearSpanHistory();
  SdkTracer::shared().clearBackendOutput();
}

// ---- The socket's side -------------------------------------------------------------------------

void RoomClient::handleRemoteEvent(RemoteEvent event, const Dictionary& response) {
  _dispatcher.handle(event, response);
}

void RoomClient::handleNewConsumer(const Dictionary& response) {
  _consuming->handleNewConsumer(response);
}

Dictionary RoomClient::getStatsData() {
  // Nothing is measured yet, and the service takes an empty report.
  return {};
}

Task<bool> RoomClient::socketConnected(SpanScope joinSpan) {
  return _joinSequence->requestEntry(std::move(joinSpan));
}

Task<void> RoomClient::socketDisconnected(LeaveReason reason) {
  if (const auto delegate = _context->delegate()) co_await delegate->disconnected(reason);
}

void RoomClient::socketError(const std::string& message) {
  traceError("Meeting State: FAILED", {{"errorMessage", message}});
  if (auto delegate = _context->delegate()) delegate->socketConnectionError(message);
}

void RoomClient::meetingStateChanged(MeetingState state) {
  MainQueue::shared().async([weak = weak_from_this(), state] {
    const auto self = weak.lock();
    if (!self) return;
    if (state == MeetingState::RECONNECTING) self->reconnecting();
    if (state == MeetingState::DISCONNECTED)
      trace("Meeting State: DISCONNECTED", {}, self->_context->spans.get(RoomSpans::Slot::leave));
    const auto meeting = self->_context->delegate();
    if (!meeting) return;
    std::scoped_lock held(meeting->meetingStateLock());
    meeting->meetingStateChanged(state);
  });
}

void RoomClient::reconnecting() {
  const auto span = openSpan("Reconnecting to the meeting");
  trace("Meeting State: RECONNECTING", {}, span);
  // In the background: a slow disposal must not hold up the main queue.
  boost::asio::post(_context->platform->background, [self = shared_from_this(), span] {
    self->_transports->disposeTransports(span);
    SdkTracer::shared().endSpan(span, {.message = "Meeting reconnecting completed"});
  });
}

}  // namespace kestrova
