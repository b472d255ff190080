#include <kestrova/model/RoomClientError.h>
#include <kestrova/model/Secrets.h>
#include <kestrova/signalling/DeviceInfo.h>
#include <kestrova/signalling/JoinSequence.h>
#include <kestrova/signalling/Response.h>
#include <kestrova/signalling/SDKConfiguration.h>
#include <kestrova/tracing/Trace.h>

#include <set>
#include <utility>

namespace kestrova {

JoinSequence::JoinSequence(std::shared_ptr<RoomContext> context,
                           std::shared_ptr<Transports> transports,
                           std::shared_ptr<MediaCapturer> capturer)
    : _context(std::move(context)),
      _transports(std::move(transports)),
      _capturer(std::move(capturer)) {}

Task<void> JoinSequence::connect() {
  const auto& meeting = _context->options.meeting;
  auto lookUp = APIManager::getServerConfig(_context->platform->urlSession, meeting.accessToken,
                                            meeting.id, _context->options.signalingBaseUrl);
  auto task = [](std::weak_ptr<JoinSequence> weak, Task<ServerConfig> asking,
                 Connection connection) -> Task<void> {
    const ServerConfig found = co_await std::move(asking);
    const auto self = weak.lock();
    if (self && connection.isCurrent()) self->open(found, connection);
  };
  return task(weak_from_this(), std::move(lookUp), _context->connections->current());
}

void JoinSequence::open(const ServerConfig& found, const Connection& connection) {
  const auto& configuration = found.answer;
  const auto baseUrl = text(configuration, "baseUrl", "");
  if (baseUrl.empty()) return refused(found, connection);
  const auto* observability = dictionary(configuration, "observability");
  startTelemetry(observability ? *observability : Dictionary());
  _context->setFileUpload(
      std::make_shared<const FileUpload>(baseUrl, _context->options.meeting.id));

  auto joinSpan = startJoinSpan();
  _context->spans.set(RoomSpans::Slot::join, joinSpan);
  trace("Meeting State: CONNECTING", {}, joinSpan);
  const bool opens = _context->socketRequestHandler->connect(
      "https://" + baseUrl, text(configuration, "socketPath", "") + "/socket.io",
      std::move(joinSpan));
  if (!opens)
    fail(KestrovaError::ERROR_UNABLE_TO_JOIN_MEETING.withCause(
             "the service names an address that makes no sense"),
         connection);
}

/// The service's own number when it gave one, else the general failure.
void JoinSequence::refused(const ServerConfig& found, const Connection& connection) {
  const auto code = integer(found.answer, "code", 0);
  const auto error = code < 1 ? KestrovaError::ERROR_UNABLE_TO_JOIN_MEETING : serviceError(code);
  fail(error.withCause(found.cause), connection);
}

/// Before the first span of the join, which is to be exported.
void JoinSequence::startTelemetry(const Dictionary& observability) const {
  auto& configuration = SDKConfiguration::shared();
  configuration.updateTraceConfig(observability);
  const auto* traces = dictionary(observability, "traces");
  const auto* metaData = dictionary(observability, "metaData");
  const auto& meeting = _context->options.meeting;
  _context->setKestrovaOTEL(
      KestrovaTelemetry::make({.roomId = meeting.id,
                               .peerId = meeting.localParticipantId,
                               .sdkName = configuration.sdkName(),
                               .sdkVersion = configuration.sdkVersion(),
                               .observabilityJwt = text(observability, "jwt", ""),
                               .traces = traces ? *traces : Dictionary(),
                               .metaData = metaData ? *metaData : Dictionary(),
                               .platform = _context->platform}));
}

SpanScope JoinSequence::startJoinSpan() const {
  const auto& options = _context->options;
  const auto& meeting = options.meeting;
  const auto& configuration = SDKConfiguration::shared();
  const auto customVideo = _context->sending->customVideoMediaStream();
  const auto customAudio = _context->sending->customAudioMediaStream();
  const auto sdkName = configuration.sdkName();
  const auto sdkVersion = configuration.sdkVersion();
  const auto deviceInfo = DeviceInfo::toStringify();
  const auto signalingUrl = options.signalingBaseUrl
                                ? addressWithoutSecrets(*options.signalingBaseUrl)
                                : std::string("signalingUrl not specified");
  const auto metaData = meeting.metaData ? jsonText(*meeting.metaData) : std::nullopt;
  const auto videoText = customVideo ? customVideo->toJsonString(false) : std::string();
  const auto audioText = customAudio ? customAudio->toJsonString(true) : std::string();
  std::vector<TraceAttribute> attributes{{"sdkType", sdkName},
                                         {"sdkVersion", sdkVersion},
                                         {"platform", "ios"},
                                         {"deviceInfo", deviceInfo},
                                         {"mode", meeting.mode},
                                         {"displayName", meeting.localParticipantName},
                                         {"meetingId", meeting.id},
                                         {"localParticipantId", meeting.localParticipantId},
                                         {"micEnabled", meeting.micEnabled},
                                         {"webcamEnabled", meeting.webcamEnabled},
                                         {"multiStream", options.multiStream},
                                         {"signalingUrl", signalingUrl}};
  if (metaData) attributes.push_back({"metadata", *metaData});
  if (customVideo) attributes.push_back({"customVideoTrack", videoText});
  if (customAudio) attributes.push_back({"customAudioTrack", audioText});
  return openSpan("Joining the meeting", std::span<const TraceAttribute>(attributes));
}

Task<bool> JoinSequence::requestEntry(SpanScope joinSpan, Connection connection) {
  const auto self = shared_from_this();
  trace("Meeting State: CONNECTED", {}, joinSpan);
  const auto span = openSpan("Requesting Entry", {}, joinSpan);
  const int number = _context->spans.set(RoomSpans::Slot::requestEntry, span);

  Dictionary data{{"name", _context->options.meeting.localParticipantName}};
  const Dictionary reply = co_await _context->socketRequestHandler->prepareAndSendRequest(
      LocalEvent::requestEntry, std::move(data), connection);
  const auto status = isStatusOK(reply, {_context->socketRequestHandler->accessToken()});
  if (status.ok) co_return true;
  if (_context->connections->isOver()) co_return false;

  traceError([&] { return "Entry request failed with error: " + status.failure; }, {}, span);
  _context->spans.finish(RoomSpans::Slot::requestEntry, number,
                         {.success = false, .message = status.failure});
  if (connection.isCurrent()) {
    fail(KestrovaError::ERROR_UNABLE_TO_JOIN_MEETING.withCause(status.cause), connection);
  } else {
    // The next "connectionSuccess" asks again.
    trace(
        "Entry request interrupted by a network drop. It will be retried once the connection is "
        "restored.",
        {{"error", status.failure}}, span);
  }
  co_return false;
}

void JoinSequence::fail(const KestrovaError& error, const Connection& connection) {
  _context->spans.finish(RoomSpans::Slot::join, {.success = false, .message = error.message()});
  if (auto delegate = _context->delegate()) {
    delegate->onError(error);
    MainQueue::shared().async(
        [weak = std::weak_ptr(delegate), connection, connections = _context->connections] {
          const auto meeting = weak.lock();
          if (!meeting || !connection.isCurrent() || connections->isOver()) return;
          std::scoped_lock held(meeting->meetingStateLock());
          meeting->meetingStateChanged(MeetingState::FAILED);
        });
  }
  releaseCapturedMediaAfterFailedJoin();
}

void JoinSequence::releaseCapturedMediaAfterFailedJoin() {
  MediaCapturer::disposeCustomTrack(_context->sending->customVideoMediaStream());
  MediaCapturer::disposeCustomTrack(_context->sending->customAudioMediaStream());
  _capturer->stop();
  _context->sending->forgetCustomStreams();
}

/// Who is there already, told before anything that the service says behind its answer.
void JoinSequence::takeParticipants(const Dictionary& answer) const {
  auto peers = getParticipants(answer);
  const auto* data = dictionary(answer, "data");
  const bool isComplete = data && list(*data, "peers");
  std::set<std::string> ids;
  for (const auto& peer : peers) ids.insert(peer.id);
  // Goodbyes that were said while the connection was lost are not said again.
  if (isComplete) _context->spans.keepPeers(ids);
  MainQueue::shared().async(
      [weak = std::weak_ptr(_context), peers = std::move(peers), ids = std::move(ids), isComplete] {
        const auto context = weak.lock();
        const auto delegate = context ? context->delegate() : nullptr;
        if (!delegate) return;
        if (isComplete) delegate->keepOnly(ids);
        for (const auto& peer : peers)
          if (!peer.id.empty()) delegate->addParticipant(peer);
      });
}

Task<std::optional<std::vector<std::string>>> JoinSequence::join(CameraPosition cameraPosition,
                                                                 bool isSwitchingRoom, Mode mode,
                                                                 bool isBatchingEnabled,
                                                                 Connection connection) {
  const auto self = shared_from_this();
  const auto joinSpan = _context->spans.get(RoomSpans::Slot::join);
  const auto& device = _transports->device();
  if (!device->isLoaded()) {
    traceError("Error while joining room", {{"error", "the media device is not loaded"}}, joinSpan);
    throw RoomClientFailure(RoomClientError::deviceNotLoaded);
  }
  // A camera that goes along into another meeting stays the one it is.
  if (!isSwitchingRoom && !_context->sending->customVideoMediaStream() &&
      cameraPosition == CameraPosition::front)
    _capturer->setCameraPosition(CameraPosition::front);

  const auto awaited = _context->pubSubEndpointStore.awaitedJoin();
  const auto meetingId = _context->socketRequestHandler->meetingId();
  // A move to another meeting may come in between: it brings its own people and addresses.
  const auto isNews = [context = _context, connection, meetingId] {
    return connection.isCurrent() && context->socketRequestHandler->meetingId() == meetingId;
  };
  auto onArrival = [weak = weak_from_this(), isNews](const Dictionary& answer) {
    const auto joining = weak.lock();
    if (joining && isNews()) joining->takeParticipants(answer);
  };
  auto joining = _context->socketRequestHandler->joinRoom(
      parseDictionary(device->rtpCapabilities()), isSwitchingRoom, mode, isBatchingEnabled,
      connection, std::move(onArrival));
  const Dictionary reply = co_await std::move(joining);
  // The move stands on the join that it overtakes, but a move that another one overtakes is over.
  if (!connection.isCurrent() || (isSwitchingRoom && !isNews())) co_return std::nullopt;

  std::vector<std::string> unsupportedCodecs;
  if (const auto* data = dictionary(reply, "data")) {
    if (isNews()) _context->pubSubEndpointStore.update(text(*data, "pubSubUrl"));
    if (const auto* codecs = list(*data, "unsupportedCodecs"))
      for (const auto& codec : *codecs)
        if (codec.is_string()) unsupportedCodecs.emplace_back(codec.get_string());
  }
  _context->pubSubEndpointStore.joinAnswered(awaited);
  co_return unsupportedCodecs;
}

}  // namespace kestrova
