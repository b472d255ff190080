#include <kestrova/media/BroadcastCapturer.h>
#include <kestrova/media/StillPicture.h>
#include <kestrova/media/StreamFacts.h>
#include <kestrova/model/RoomClientError.h>
#include <kestrova/model/Secrets.h>
#include <kestrova/signalling/RoomClient.h>
#include <kestrova/tracing/Trace.h>

#include <boost/asio/post.hpp>

#include <utility>

namespace kestrova {
namespace {

/// How many meetings of the process are between their join and their end.
std::atomic<int> tracingMeetings{0};

}  // namespace

std::shared_ptr<RoomClient> RoomClient::make(RoomClientOptions options) {
  std::shared_ptr<RoomClient> client(new RoomClient(std::move(options)));
  client->_context->socketRequestHandler->setDelegates(client, client, client);
  return client;
}

RoomClient::RoomClient(RoomClientOptions options)
    : _context(std::make_shared<RoomContext>(std::move(options))),
      _registry(std::make_shared<MediaRegistry>(_context->stateQueue)),
      _capturer(MediaCapturer::make()),
      _broadcast(BroadcastCapturer::make()),
      _audioSession(AudioManager::make(true)),
      _monitor(std::make_shared<TransportMonitor>(_context, _registry)),
      _transports(std::make_shared<Transports>(_context, _registry, _monitor)),
      _publishing(
          std::make_shared<Publishing>(_context, _registry, _transports, _capturer, _broadcast)),
      _consuming(std::make_shared<Consuming>(_context, _registry, _transports)),
      _consumerControls(std::make_shared<ConsumerControls>(_context)),
      _serviceRequests(std::make_shared<ServiceRequests>(_context)),
      _joinSequence(std::make_shared<JoinSequence>(_context, _transports, _capturer)),
      _teardown(std::make_shared<Teardown>(_context, _registry, _transports, _publishing, _capturer,
                                           _broadcast, _audioSession)),
      _roomSwitch(std::make_shared<RoomSwitch>(_context, _consuming, _joinSequence, _teardown,
                                               _serviceRequests)),
      _modeChanging(std::make_shared<ModeChanging>(_context, _transports, _consuming)),
      _peerRequests(std::make_shared<PeerRequests>(_context)),
      _dispatcher(_context, _consuming, _transports) {}

RoomClient::~RoomClient() {
  // Also of a meeting that was let go of, or never joined.
  cleanUpTracing();
  _audioSession->stopAudioSession();
}

// ---- Joining and leaving -----------------------------------------------------------------------

Task<void> RoomClient::connect(std::shared_ptr<BaseKeyProvider> keyProvider) {
  if (keyProvider) {
    auto e2ee = std::make_shared<E2EEManager>(_context->platform->peerConnectionFactory(),
                                              std::move(keyProvider));
    e2ee->setDelegate(weak_from_this());
    _context->e2eeManager = std::move(e2ee);
  }
  if (!_isTracing.exchange(true)) ++tracingMeetings;
  return _joinSequence->connect();
}

Task<void> RoomClient::setupDeviceAndTransports(bool isLoaded,
                                                std::optional<SpanScope> changeModeSpan,
                                                bool needToCreateSendTransport,
                                                bool needToCreateRecvTransport,
                                                Connection connection) {
  return _transports->setupDeviceAndTransports(isLoaded, std::move(changeModeSpan),
                                               needToCreateSendTransport, needToCreateRecvTransport,
                                               std::move(connection));
}

Task<std::optional<std::vector<std::string>>> RoomClient::join(CameraPosition cameraPosition,
                                                               bool isSwitchingRoom, Mode mode,
                                                               bool isBatchingEnabled,
                                                               Connection connection) {
  return _joinSequence->join(cameraPosition, isSwitchingRoom, mode, isBatchingEnabled,
                             std::move(connection));
}

Task<void> RoomClient::disconnect(LeaveReason leaveReason, bool closeSocket,
                                  std::shared_ptr<void> goodbye) {
  return _teardown->disconnect(leaveReason, closeSocket, std::move(goodbye));
}

Task<void> RoomClient::closeRoom(std::optional<LeaveReason> leaveReason) {
  return _teardown->closeRoom(leaveReason);
}

Task<void> RoomClient::respondEntry(std::string peerId, std::string decision) {
  return _peerRequests->respondEntry(std::move(peerId), std::move(decision));
}

Task<void> RoomClient::switchTo(std::optional<std::string> token, std::string meetingId,
                                Mode mode) {
  return _roomSwitch->switchTo(std::move(token), std::move(meetingId), mode);
}

void RoomClient::softClose(const std::string& nextMeetingId) {
  _roomSwitch->softClose(nextMeetingId);
}

Task<void> RoomClient::switchingRoom(std::string meetingId, Mode mode, bool isBatchingEnabled,
                                     Connection connection) {
  return _roomSwitch->switchingRoom(std::move(meetingId), mode, isBatchingEnabled,
                                    std::move(connection));
}

Task<void> RoomClient::changeMode(Mode mode, Connection connection,
                                  std::optional<SpanScope> changeModeSpan) {
  return _modeChanging->changeMode(mode, std::move(connection), std::move(changeModeSpan));
}

Task<std::optional<std::string>> RoomClient::cleanupAudio() {
  const auto self = shared_from_this();
  if (!_registry->getProducerByKind(MediaKind::audio, false)) co_return std::nullopt;
  co_return co_await _publishing->closeLocalAudio(std::nullopt, std::nullopt);
}

Task<std::optional<std::string>> RoomClient::cleanupVideo() {
  const auto self = shared_from_this();
  if (!_registry->getProducerByKind(MediaKind::video, false)) co_return std::nullopt;
  co_return co_await _publishing->closeLocalVideo(std::nullopt, std::nullopt);
}

Task<std::optional<std::string>> RoomClient::changeMic(std::string selectedDevice) {
  const auto self = shared_from_this();
  ScopedSpan span("Changing Microphone", {{"selectedDevice", selectedDevice}});
  std::optional<SpanScope> parent = span.scope();
  auto changing = _audioSession->changeMic(std::move(selectedDevice), std::move(parent));
  const auto chosen = co_await std::move(changing);
  if (!chosen) span.interrupt("Device was not changed");
  co_return chosen;
}

void RoomClient::inOrder(Task<void> request) {
  // The coroutines begin later, and don't hold what they belong to until then.
  auto holding = [](std::shared_ptr<RoomClient>, Task<void> held) -> Task<void> {
    co_await std::move(held);
  };
  _context->inOrder(holding(shared_from_this(), std::move(request)));
}

void RoomClient::noteSession(const std::optional<std::string>& sessionId) {
  if (const auto telemetry = _context->kestrovaOTEL())
    telemetry->updateRootSpanAttributes(sessionId.value_or("No Session ID available!"));
}

void RoomClient::logTo(const std::shared_ptr<TraceOutput>& backendLog) {
  auto& tracer = SdkTracer::shared();
  tracer.setBackendOutput(backendLog, _context->exchangeBackendLog(backendLog));
  // The meeting may have ended meanwhile.
  if (!_isTracing) tracer.clearBackendOutput(backendLog);
}

void RoomClient::cleanUpTracing() {
  const bool wasTracing = _isTracing.exchange(false);
  _context->spans.clear();
  auto& tracer = SdkTracer::shared();
  if (const auto own = _context->exchangeBackendLog(nullptr)) tracer.clearBackendOutput(own);
  // The tracer is the process's: what other meetings have there stays.
  if (wasTracing && --tracingMeetings == 0) tracer.clearSpanHistory();
}

// ---- Files -------------------------------------------------------------------------------------

void RoomClient::uploadBase64File(std::string base64Data, const std::string& token,
                                  const std::string& fileName, FileUpload::Completion completion) {
  if (const auto files = _context->fileUpload())
    files->uploadBase64File(std::move(base64Data), token, fileName, std::move(completion));
}

void RoomClient::fetchBase64File(const std::string& url, const std::string& token,
                                 FileUpload::Completion completion) {
  if (const auto files = _context->fileUpload())
    files->fetchBase64File(url, token, std::move(completion));
}

// ---- For participants and streams --------------------------------------------------------------

void RoomClient::askOfPeer(LocalEvent request, const std::string& participantId) {
  inOrder(_peerRequests->ask(request, participantId));
}

void RoomClient::participantPinStateChanged(const std::string& participantId,
                                            ParticipantPinState pinState, bool pinning,
                                            std::function<void()> onRefused) {
  inOrder(_peerRequests->participantPinStateChanged(participantId, pinState, pinning,
                                                    std::move(onRefused)));
}

void RoomClient::imageCapturer(std::optional<double> height, std::optional<double> width,
                               ImageCompletion completion) {
  takeStillPicture(stillFromCamera(_capturer), height, width, std::move(completion));
}

/// Pictures that don't come from the meeting's own camera are looked at where they arrive.
void RoomClient::imageCapturer(const std::shared_ptr<RTCVideoTrack>& of,
                               std::optional<double> height, std::optional<double> width,
                               ImageCompletion completion) {
  if (_capturer->feeds(of)) return imageCapturer(height, width, std::move(completion));
  takeStillPicture(stillFromTrack(of), height, width, std::move(completion));
}

void RoomClient::setQuality(VideoQuality quality, const std::string& consumerId,
                            const std::string& participantId, std::function<void()> onRefused) {
  inOrder(_consumerControls->setQuality(quality, consumerId, participantId, std::move(onRefused)));
}

void RoomClient::pauseConsumer(const std::string& consumerId) {
  inOrder(_consumerControls->pauseConsumer(consumerId));
}

void RoomClient::resumeConsumer(const std::string& consumerId) {
  inOrder(_consumerControls->resumeConsumer(consumerId));
}

void RoomClient::encryptionStateChanged(const std::string& id, RTCFrameCryptorState state) {
  const bool isLocal = _registry->producer(id) != nullptr;
  const auto consumer = isLocal ? nullptr : _registry->consumer(id);
  const auto reported = e2eeStateOf(state, isLocal);
  if (!reported) return;
  auto peerId = isLocal ? _context->options.meeting.localParticipantId
                        : (consumer ? factsOf(*consumer).peerId : std::string());
  if (peerId.empty()) peerId = "N/A";
  // Behind the arrival of the stream.
  onMain(_context, [peerId, reported, id](RoomContext&, RoomClientDelegate& meeting) {
    meeting.e2eeStateChanged(peerId, *reported, id);
  });
}

// ---- The socket's side -------------------------------------------------------------------------

void RoomClient::handleRemoteEvent(RemoteEvent event, const Dictionary& response) {
  _dispatcher.handle(event, response);
}

void RoomClient::handleNewConsumer(const Dictionary& response) {
  _consuming->handleNewConsumer(response);
}

Dictionary RoomClient::getStatsData() {
  return _monitor->getStatsData();
}

std::optional<List> RoomClient::getStats(const std::string& participantId, MediaType type) {
  return _monitor->getStats(participantId, type);
}

Task<bool> RoomClient::socketConnected(SpanScope joinSpan, Connection connection) {
  return _joinSequence->requestEntry(std::move(joinSpan), std::move(connection));
}

Task<void> RoomClient::socketDisconnected(LeaveReason reason) {
  if (const auto delegate = _context->delegate()) co_await delegate->disconnected(reason);
}

void RoomClient::socketError(const std::string& message) {
  // A service that refuses a token may quote it.
  const auto readable = [&] {
    return textWithoutSecrets(
        textWithout({_context->socketRequestHandler->accessToken()}, message));
  };
  traceError("Meeting State: FAILED", {{"errorMessage", readable}});
  if (auto delegate = _context->delegate()) delegate->socketConnectionError(message);
}

void RoomClient::meetingStateChanged(MeetingState state, Connection connection) {
  // Now, so that what the next connection builds is never taken for what this one left.
  Transports::Lost lost;
  if (state == MeetingState::RECONNECTING) {
    lost = _transports->takeLost();
    _context->pubSubEndpointStore.awaitJoin();
  }
  MainQueue::shared().async([weak = weak_from_this(), state, connection,
                             lost = std::move(lost)]() mutable {
    const auto self = weak.lock();
    if (!self) return;
    if (state == MeetingState::RECONNECTING) self->reconnecting(std::move(lost));
    if (state == MeetingState::DISCONNECTED)
      trace("Meeting State: DISCONNECTED", {}, self->_context->spans.get(RoomSpans::Slot::leave));
    self->applyState(state, connection);
  });
}

void RoomClient::applyState(MeetingState state, const Connection& connection) {
  // What was reached on a connection that is gone, or in a meeting that was left, is no news.
  if (state == MeetingState::CONNECTED && !connection.isCurrent()) return;
  if (state != MeetingState::DISCONNECTED && _context->connections->isOver()) return;
  const auto meeting = _context->delegate();
  if (!meeting) return;
  std::scoped_lock held(meeting->meetingStateLock());
  meeting->meetingStateChanged(state);
}

void RoomClient::reconnecting(Transports::Lost lost) {
  const auto span = openSpan("Reconnecting to the meeting");
  trace("Meeting State: RECONNECTING", {}, span);
  // In the background: a slow disposal must not hold up the main queue.
  boost::asio::post(
      _context->platform->background, [self = shared_from_this(), lost = std::move(lost), span] {
        self->_transports->disposeTransports(lost, span);
        // The service will announce afresh what there still is to receive.
        std::vector<std::string> ids;
        for (const auto& consumer : lost.consumers) ids.push_back(consumer->id());
        removeStreams(self->_context, std::move(ids));
        SdkTracer::shared().endSpan(span, {.message = "Meeting reconnecting completed"});
      });
}

}  // namespace kestrova
