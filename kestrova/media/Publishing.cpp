#include <kestrova/media/BroadcastCapturer.h>
#include <kestrova/media/Publishing.h>
#include <kestrova/media/SdkCapabilities.h>
#include <kestrova/media/VideoCodecCapabilityResolver.h>
#include <kestrova/model/RoomClientError.h>
#include <kestrova/platform/Await.h>
#include <kestrova/signalling/Response.h>
#include <kestrova/tracing/Trace.h>

#include <array>
#include <utility>

namespace kestrova {

/// What is said, and reported, about one kind of published stream.
struct Publishing::Row {
  MediaType type;
  MediaKind kind;
  const char* noTransport = "";
  const char* notSupported;
  const char* notSupportedMessage = "";
  KestrovaError notSupportedError;
  const char* noTrack = "";
  const char* started;
  const char* publishFailed = "";
  const char* turnedOn = "";
  const char* stopSpan;
  const char* alreadyClosed;
  const char* alreadyClosedError;
  const char* stopped;
  const char* disabled;
  const char* disableFailed;
  const char* disableFailedError;
};

const Publishing::Row& Publishing::row(MediaType type) {
  static const auto& rows = *new std::array<Row, 3>{{
      {.type = MediaType::audio,
       .kind = MediaKind::audio,
       .noTransport =
           "Error in unmuteMic() -> Tried to enable mic while meeting is in CONNECTING state.",
       .notSupported = "Audio capture is not supported on this device or browser.",
       .notSupportedError = KestrovaError::ERROR_GET_AUDIO_MEDIA,
       .noTrack = "Microphone Track is not found!",
       .started = "Audio Stream transmission started successfully",
       .publishFailed = "Error in unmuteMic() -> while creating microphone track",
       .turnedOn = "Microphone turned on successfully",
       .stopSpan = "Stopping Audio Stream transmission",
       .alreadyClosed = "Audio stream is already closed!",
       .alreadyClosedError = "Attempted to call muteMic() while microphone is already disabled",
       .stopped = "Audio Stream transmission stopped successfully",
       .disabled = "Microphone disabled successfully",
       .disableFailed = "Error in muteMic() -> ",
       .disableFailedError = "Error encountered while disabling the microphone."},
      {.type = MediaType::video,
       .kind = MediaKind::video,
       .noTransport = "Error in enableWebcam() -> Tried to enable webcam while meeting is in "
                      "CONNECTING state.",
       .notSupported = "Error in enableWebcam() -> Camera access unavailable.",
       .notSupportedMessage = "Video capture is not supported on this device or browser.",
       .notSupportedError = KestrovaError::ERROR_GET_VIDEO_MEDIA,
       .noTrack = "Camera Track is not found!",
       .started = "Video Stream transmission started successfully",
       .publishFailed = "Enable WebCam Failed",
       .turnedOn = "Webcam turned on successfully",
       .stopSpan = "Stopping Video Stream transmission",
       .alreadyClosed = "Webcam stream is already disabled!",
       .alreadyClosedError = "Attempted to call disableWebcam() while Webcam is already disabled.",
       .stopped = "Video Stream transmission stopped successfully",
       .disabled = "Webcam disabled successfully",
       .disableFailed = "Error in disableWebcam() -> ",
       .disableFailedError = "Error encountered while disabling the webcam."},
      {.type = MediaType::share,
       .kind = MediaKind::video,
       .notSupported = "Screen sharing is not supported on this device or browser.",
       .notSupportedError = KestrovaError::ERROR_GET_DISPLAY_MEDIA,
       .started = "Screen share transmission started successfully",
       .publishFailed = "Error in enableScreenShare() -> while publishing the screen",
       .stopSpan = "Stopping Screen Share Stream transmission",
       .alreadyClosed = "Screenshare stream is already disabled!",
       .alreadyClosedError =
           "Attempted to call disableScreenShare() while screenshare is already disabled",
       .stopped = "ScreenShare Stream transmission stopped successfully",
       .disabled = "Screen share stream disabled successfully",
       .disableFailed = "Error in disableScreenShare() -> ",
       .disableFailedError = "Error encountered while disabling the screen share."},
  }};
  return rows.at(static_cast<std::size_t>(type));
}

Publishing::Publishing(std::shared_ptr<RoomContext> context,
                       std::shared_ptr<MediaRegistry> registry,
                       std::shared_ptr<Transports> transports,
                       std::shared_ptr<MediaCapturer> capturer,
                       std::shared_ptr<BroadcastCapturer> broadcast)
    : _context(std::move(context)),
      _registry(std::move(registry)),
      _transports(std::move(transports)),
      _capturer(std::move(capturer)),
      _broadcast(std::move(broadcast)) {}

// ---- Publishing --------------------------------------------------------------------------------

namespace {

std::string audioOptions(const std::optional<CustomAudioTrackConfig>& config) {
  Dictionary options{{"opusStereo", false},
                     {"opusFec", false},
                     {"opusDtx", false},
                     {"opusMaxPlaybackRate", 0},
                     {"opusPtime", 0}};
  if (config) {
    const auto& row = audioTrackPreset(*config);
    options["opusStereo"] = row.stereo;
    options["opusFec"] = row.fec;
    options["opusDtx"] = row.dtx;
    options["opusMaxPlaybackRate"] = row.maxPlaybackRate;
    options["opusPtime"] = row.packetTime;
  }
  return boost::json::serialize(options);
}

constexpr int startBitrateKbps = 1000;

}  // namespace

/// How a camera is to be sent.
struct Publishing::VideoPlan {
  int width = 0;
  int height = 0;
  bool simulcast = false;
  std::string codecJSON;
  std::vector<RTCRtpEncodingParameters> encodings;
};

Task<std::shared_ptr<Producer>> Publishing::produceLocalAudio(
    std::shared_ptr<CustomRTCMediaStream> customAudioStream, Connection connection,
    std::optional<SpanScope> enableMicSpan) {
  const auto self = shared_from_this();
  const auto& texts = row(MediaType::audio);
  ScopedSpan span("Starting Audio Stream transmission",
                  {{"config", [&] { return customAudioStream->toJsonString(true); }}},
                  enableMicSpan);
  requireTransport(texts, connection, span);
  requireDevice(texts, connection, span.scope());
  const auto fields = customAudioStream->fields();
  {
    ScopedSpan resolving("Utilising resolved microphone track", {}, span.scope());
    if (!fields.audioTrack)
      refuse(resolving.scope(), connection, texts.noTrack, texts.notSupportedError,
             RoomClientError::audioNotSupported);
    resolving.event("Microphone Track Generated");
  }
  RTCRtpEncodingParameters encoding;
  encoding.networkPriority = RTCRtpEncodingParameters::Priority::high;
  ProducerOptions options;
  options.track = fields.audioTrack;
  options.encodings.push_back(encoding);
  options.codecOptions = audioOptions(fields.audioEncoderConfig);
  auto publishing = publish(texts, std::move(options), connection, span.scope());
  auto producer = co_await std::move(publishing);
  if (!producer) span.interrupt("not published");
  co_return producer;
}

Task<std::shared_ptr<Producer>> Publishing::produceLocalVideo(
    std::shared_ptr<CustomRTCMediaStream> customVideoStream, Connection connection,
    std::optional<SpanScope> enableCamSpan) {
  const auto self = shared_from_this();
  const auto& texts = row(MediaType::video);
  ScopedSpan span("Generating configurations for video stream",
                  {{"config", [&] { return customVideoStream->toJsonString(false); }}},
                  enableCamSpan);
  requireTransport(texts, connection, span);
  requireDevice(texts, connection, span.scope());
  auto track = customVideoStream->videoTrack();
  {
    ScopedSpan resolving("Utilising resolved camera track", {}, span.scope());
    if (!track)
      refuse(resolving.scope(), connection, texts.noTrack, texts.notSupportedError,
             RoomClientError::videoNotSupported);
    resolving.event("Camera Track Generated");
  }
  auto plan = planVideo(*customVideoStream);
  span.event("Video stream configurations generated",
             {{"width", plan.width}, {"height", plan.height}, {"simulcast", plan.simulcast}});
  const auto transmission = openSpan("Starting Video Stream transmission", {}, enableCamSpan);
  const int number = _context->spans.set(RoomSpans::Slot::current, transmission);

  ProducerOptions options;
  options.track = std::move(track);
  options.encodings = std::move(plan.encodings);
  options.codecOptions =
      boost::json::serialize(Dictionary{{"videoGoogleStartBitrate", startBitrateKbps}});
  options.codec = std::move(plan.codecJSON);
  auto publishing = publish(texts, std::move(options), connection, transmission);
  auto producer = co_await std::move(publishing);
  _context->spans.finish(
      RoomSpans::Slot::current, number,
      {.success = producer != nullptr, .message = producer ? "" : "not published"});
  _context->spans.drop(RoomSpans::Slot::current, number);
  co_return producer;
}

Task<std::shared_ptr<Producer>> Publishing::produceLocalScreenShare(
    Connection connection, std::optional<SpanScope> parentSpan) {
  const auto self = shared_from_this();
  const auto& texts = row(MediaType::share);
  requireDevice(texts, connection, parentSpan);
  ProducerOptions options;
  {
    ScopedSpan creating("Creating Screenshare Track", {}, parentSpan);
    auto track = co_await _broadcast->createBroadcastTrack();
    creating.event("Screenshare Track Generated");
    options.track = std::move(track);
  }
  ScopedSpan span("Starting Screen Share Stream transmission", {}, parentSpan);
  options.appData = boost::json::serialize(Dictionary{{"share", true}});
  auto publishing = publish(texts, std::move(options), connection, span.scope());
  auto producer = co_await std::move(publishing);
  if (!producer) span.interrupt("not published");
  co_return producer;
}

Publishing::VideoPlan Publishing::planVideo(CustomRTCMediaStream& stream) {
  const auto fields = stream.fields();
  const auto delegate = _context->delegate();
  const auto deviceCodecs = _transports->deviceCodecs();

  auto codec = fields.videoCodec.value_or(VideoCodec::VP8);
  if (!VideoCodecCapabilityResolver::isCodecSupported(codec, deviceCodecs)) {
    codec = VideoCodec::VP8;
    if (delegate) delegate->recordVideoCodec(codec);
    reportLater(KestrovaError::ERROR_VIDEO_PRODUCE_CODEC_NOT_SUPPORTED);
  }
  VideoPlan plan;
  plan.codecJSON =
      VideoCodecCapabilityResolver::resolveCodecJSON(codec, deviceCodecs, "42e01f").value_or("");
  plan.simulcast = fields.multiStream.value_or(true);
  if (plan.simulcast && codec != VideoCodec::VP8) {
    plan.simulcast = false;
    if (delegate) delegate->recordMultiStreamDowngrade();
    reportLater(KestrovaError::ERROR_MULTISTREAM_NOT_SUPPORTED);
  }
  const auto bitrateMode = fields.bitrateMode.value_or(BitrateMode::BALANCED);
  const auto& preset =
      videoTrackPreset(fields.encoderConfig.value_or(CustomVideoTrackConfig::h720p_w1280p));
  plan.width = preset.width;
  plan.height = preset.height;
  const VideoEncodingOptions encodingOptions{
      .videoEncoding = MaxBitrate{preset.bitrates[bitrateMode]}, .simulcast = plan.simulcast};
  plan.encodings = SdkCapabilities::computeVideoEncodings(
      false, plan.width, plan.height, encodingOptions, bitrateMode,
      fields.maxLayer.value_or(EncodingLayer::MAX_LAYER_3));
  return plan;
}

void Publishing::refuse(ParentSpan span, const Connection& connection, const char* line,
                        const KestrovaError& error, RoomClientError failure, const char* message) {
  if (*message)
    traceError(line, {{"message", message}}, span);
  else
    traceError(line, {}, span);
  const auto delegate = _context->delegate();
  if (delegate && connection.isCurrent()) delegate->onError(error);
  throw RoomClientFailure(failure);
}

void Publishing::requireTransport(const Row& texts, const Connection& connection,
                                  const ScopedSpan& span) {
  if (!_transports->sendTransport())
    refuse(span.scope(), connection, texts.noTransport,
           KestrovaError::ERROR_ACTION_PERFORMED_BEFORE_MEETING_JOINED,
           RoomClientError::sendTransportNotCreated);
}

void Publishing::requireDevice(const Row& texts, const Connection& connection, ParentSpan span) {
  if (!_transports->device()->canProduce(texts.kind))
    refuse(span, connection, texts.notSupported, texts.notSupportedError,
           texts.kind == MediaKind::audio ? RoomClientError::audioNotSupported
                                          : RoomClientError::videoNotSupported,
           texts.notSupportedMessage);
}

Task<std::shared_ptr<Producer>> Publishing::publish(const Row& texts, ProducerOptions options,
                                                    Connection connection, SpanScope span) {
  const auto transport = _transports->sendTransport();
  const auto track = options.track;
  if (!options.track->isEnabled() || !transport || !connection.isCurrent()) co_return nullptr;
  // A shared screen travels unencrypted.
  const auto e2ee = texts.type == MediaType::share ? nullptr : _context->e2eeManager;
  options.encrypted = e2ee != nullptr;
  std::shared_ptr<Producer> producer;
  try {
    producer = co_await transport->createProducer(std::move(options));
  } catch (const std::exception& error) {
    if (connection.isCurrent())
      traceError(texts.publishFailed, {{"error", std::string_view(error.what())}}, span);
    co_return nullptr;
  }
  if (!connection.isCurrent() || producer->closed()) {
    // Its transport went while the service was asked: nobody else knows of this producer.
    co_await closeOnMain(std::move(producer));
    co_return nullptr;
  }
  producer->setDelegate(weak_from_this());
  // A track that was silenced while the service was asked stays silent.
  if (track->isEnabled()) producer->resume();
  _registry->add(producer);
  if (e2ee) e2ee->setupEncryption(producer);
  const auto& peerId = _context->options.meeting.localParticipantId;
  trace(texts.started, {}, span);
  if (texts.type == MediaType::share) co_return producer;
  trace("Emitting STREAM_ENABLED Event", {{"kind", text(texts.type)}, {"peerId", peerId}}, span);
  trace(texts.turnedOn, {}, span);
  co_return producer;
}

void Publishing::reportLater(const KestrovaError& error) {
  MainQueue::shared().async([weak = std::weak_ptr(_context), error] {
    if (const auto context = weak.lock()) reportFailure(*context, error);
  });
}

// ---- Closing -----------------------------------------------------------------------------------

Task<std::string> Publishing::closeLocalAudio(std::optional<Connection> telling,
                                              std::optional<SpanScope> parentSpan) {
  return closeLocal(row(MediaType::audio), std::move(telling), std::move(parentSpan));
}
Task<std::string> Publishing::closeLocalVideo(std::optional<Connection> telling,
                                              std::optional<SpanScope> parentSpan) {
  return closeLocal(row(MediaType::video), std::move(telling), std::move(parentSpan));
}
Task<std::string> Publishing::closeLocalScreenShare(std::optional<Connection> telling,
                                                    std::optional<SpanScope> parentSpan) {
  return closeLocal(row(MediaType::share), std::move(telling), std::move(parentSpan));
}

Task<std::optional<std::string>> Publishing::forgetLocalScreenShare() {
  const auto self = shared_from_this();
  const auto producer = _registry->getProducerByKind(MediaKind::video, true);
  if (!producer) co_return std::nullopt;
  co_await closeOnMain(producer);
  _registry->removeProducer(producer->id());
  co_return producer->id();
}

Task<std::string> Publishing::closeLocal(const Row& texts, std::optional<Connection> telling,
                                         std::optional<SpanScope> parentSpan) {
  const auto self = shared_from_this();
  ScopedSpan span(texts.stopSpan, {}, parentSpan);
  const bool share = texts.type == MediaType::share;
  const auto producer = _registry->getProducerByKind(texts.kind, share);
  if (!producer) {
    span.event(texts.alreadyClosed);
    // In a teardown nobody attempted anything: a stream that never ran is no error then.
    (telling ? traceError : traceDebug)(texts.alreadyClosedError, {}, span.scope());
    throw RoomClientFailure(RoomClientError::producerNotFound);
  }
  const auto producerId = producer->id();
  if (const auto& e2ee = _context->e2eeManager) e2ee->closeEncryption(producer);
  co_await closeOnMain(producer);
  span.event(texts.stopped);
  const auto emitDisabled = [&] {
    span.event(
        "Emitting STREAM_DISABLED Event",
        {{"kind", text(texts.type)}, {"peerId", _context->options.meeting.localParticipantId}});
  };
  if (!share) emitDisabled();
  _registry->removeProducer(producerId);
  std::optional<ScopedSpan> disposing;
  if (share) disposing.emplace("Disposing Screenshare Track", TraceAttributeList{}, span.scope());
  auto disposal = dispose(texts, producer, std::move(telling), span.scope());
  co_await std::move(disposal);
  if (disposing) {
    disposing->event("Screenshare track disposed successfully");
    emitDisabled();
  }
  span.event(texts.disabled);
  co_return producerId;
}

/// Tells the service and lets go of what fed the producer, whatever the service says.
Task<void> Publishing::dispose(const Row& texts, std::shared_ptr<Producer> producer,
                               std::optional<Connection> telling, SpanScope span) {
  if (telling) {
    Dictionary data{{"producerId", producer->id()}};
    const Dictionary reply = co_await _context->socketRequestHandler->prepareAndSendRequest(
        LocalEvent::closeProducer, std::move(data), telling);
    if (const auto status = isStatusOK(reply); !status.ok && telling->isCurrent()) {
      traceError([&] { return texts.disableFailed + status.failure; }, {}, span);
      traceError(texts.disableFailedError, {}, span);
    }
  }
  removeTrack(texts.type, producer->track());
}

Task<void> Publishing::closeOnMain(std::shared_ptr<Producer> producer) {
  auto close = [producer](Completion<bool> done) {
    MainQueue::shared().async([producer, done] {
      if (!producer->closed()) producer->close();
      producer->setDelegate({});
      done(true);
    });
  };
  co_await awaitCallback<bool>(std::move(close));
}

/// The capture of that very producer: another one may have begun meanwhile.
void Publishing::removeTrack(MediaType type, const std::shared_ptr<RTCMediaStreamTrack>& track) {
  if (type == MediaType::audio) _capturer->removeAudioTrack(track);
  if (type == MediaType::video) _capturer->removeVideoTrack(track);
  if (type == MediaType::share) _broadcast->removeBroadcastTrack(track);
}

void Publishing::onTransportClose(const std::shared_ptr<Producer>& producer) {
  traceDebug("Transport is closed",
             {{"kind", producer->kind() == MediaKind::audio ? "audio" : "video"}});
}

}  // namespace kestrova
