#include <kestrova/media/ConsumerClosing.h>
#include <kestrova/media/Consuming.h>
#include <kestrova/media/StreamFacts.h>
#include <kestrova/model/RoomClientError.h>
#include <kestrova/tracing/Trace.h>

#include <algorithm>
#include <utility>

namespace kestrova {
namespace {

/// How long a stream that ended is still listed, so that its end is heard before it goes.
constexpr std::chrono::milliseconds removalDelay{100};

}  // namespace

Consuming::Consuming(std::shared_ptr<RoomContext> context, std::shared_ptr<MediaRegistry> registry,
                     std::shared_ptr<Transports> transports)
    : _context(std::move(context)),
      _registry(std::move(registry)),
      _transports(std::move(transports)) {}

void Consuming::handleNewConsumer(const Dictionary& notification) {
  static const Dictionary empty;
  const auto* found = dictionary(notification, "data");
  const auto& data = found ? *found : empty;
  const auto peerId = text(data, "peerId", "");
  const auto* appData = dictionary(data, "appData");
  auto label = text(data, "kind", "");
  if (label == "video" && appData && boolean(*appData, "share", false)) label = "share";

  const auto span = openSpan([&] { return "Starting participant's " + label + " stream"; },
                             {{"peerId", peerId}, {"kind", label}}, _context->spans.peer(peerId));
  const auto emitting =
      openSpan("Emitting STREAM_ENABLE Event", {{"kind", label}, {"peerId", peerId}}, span);
  auto& tracer = SdkTracer::shared();
  try {
    const auto consumer = consumeTrack(data);
    _context->spans.setConsumer(consumer->id(), span);
  } catch (const std::exception& error) {
    const std::string cause = error.what();
    tracer.endSpan(emitting, {.success = false, .message = "Unable to send event: " + cause});
    traceError([&] { return "Unable to receive participant's media stream: " + cause; }, {}, span);
    tracer.endSpan(span, {.success = false, .message = cause});
    throw;
  }
  trace("Stream event sent successfully", {}, emitting);
  tracer.endSpan(emitting);
  trace("New media stream received successfully", {}, span);
}

std::shared_ptr<Consumer> Consuming::consumeTrack(const Dictionary& data) {
  const auto id = text(data, "id");
  const auto kind = text(data, "kind");
  const auto producerId = text(data, "producerId");
  const auto* rtpParameters = dictionary(data, "rtpParameters");
  const auto* appData = dictionary(data, "appData");
  const auto peerId = text(data, "peerId");
  // Nothing begins any more in a meeting that is over.
  const auto transport =
      _context->connections->isOver() ? nullptr : _transports->receiveTransport();
  if (!id || !kind || !producerId || !rtpParameters || !appData || !peerId || !transport)
    throw RoomClientFailure(RoomClientError::couldNotStartConsumerStream);

  const bool isShare = boolean(*appData, "share", false);
  // A shared screen travels unencrypted.
  const auto e2ee = isShare ? nullptr : _context->e2eeManager;
  const auto consumer = transport->consume(
      *id, *producerId, *kind == "video" ? MediaKind::video : MediaKind::audio,
      jsonText(*rtpParameters).value_or(""), jsonText(*appData).value_or(""), e2ee != nullptr);
  consumer->setDelegate(weak_from_this());
  _registry->add(consumer);
  if (consumer->closed()) {
    // Its transport went meanwhile.
    removeTrack(consumer->id());
    throw RoomClientFailure(RoomClientError::couldNotStartConsumerStream);
  }
  onMain(_context,
         [consumer, isShare, peerId = *peerId](RoomContext&, RoomClientDelegate& meeting) {
           meeting.addStream(consumer, isShare, peerId);
         });
  // Last, so that whatever is said of its frames finds the stream.
  if (e2ee) e2ee->setupDecryption(consumer);
  return consumer;
}

void Consuming::handleConsumerClosed(const std::string& consumerId) {
  const auto consumer = _registry->consumer(consumerId);
  if (!consumer) return;
  const auto facts = factsOf(*consumer);
  const auto span =
      openSpan([&] { return "Closing participant's " + std::string(text(facts.kind)) + " stream"; },
               {{"consumerId", consumerId}}, _context->spans.peer(facts.peerId));
  auto& main = MainQueue::shared();
  main.async([weak = weak_from_this(), facts, consumerId, trackId = consumer->track()->id(), span] {
    const auto self = weak.lock();
    const auto delegate = self ? self->_context->delegate() : nullptr;
    if (delegate && facts.kind == MediaType::video)
      delegate->handleStreamStateChange(StreamState::ENDED, facts.peerId, trackId);
    trace("Stream: Ended",
          {{"peerId", facts.peerId}, {"consumerId", consumerId}, {"kind", text(facts.kind)}}, span);
  });
  main.after(removalDelay, [weak = weak_from_this(), facts, consumerId, span] {
    if (const auto self = weak.lock()) {
      self->removeTrack(consumerId);
      if (const auto delegate = self->_context->delegate()) delegate->removeStream(consumerId);
    }
    SdkTracer::shared().endSpan(
        span, {.attributes = {{"consumerId", consumerId}, {"kind", text(facts.kind)}},
               .message = "Participant's stream disabled successfully"});
  });
}

void Consuming::removeTrack(const std::string& consumerId) {
  if (const auto consumer = _registry->takeConsumer(consumerId)) closeConsumer(*_context, consumer);
}

std::vector<std::string> Consuming::closeAllConsumers() {
  std::vector<std::string> ids;
  for (const auto& consumer : _registry->takeConsumers()) {
    ids.push_back(consumer->id());
    closeConsumer(*_context, consumer);
  }
  return ids;
}

std::vector<std::string> Consuming::letGoOfAllConsumers() {
  std::vector<std::string> ids;
  for (const auto& consumer : _registry->takeConsumers()) {
    ids.push_back(consumer->id());
    letGoOfConsumer(*_context, consumer);
  }
  return ids;
}

void Consuming::handleConsumerPaused(const std::string& consumerId) {
  const auto consumer = _registry->consumer(consumerId);
  if (!consumer) return;
  const auto facts = factsOf(*consumer);
  consumer->pause();
  trace("Stream: Paused", {{"peerId", facts.peerId}, {"kind", text(facts.kind)}},
        _context->spans.consumer(consumerId));
}

void Consuming::handleConsumerResumed(const std::string& consumerId) {
  const auto consumer = _registry->consumer(consumerId);
  if (!consumer) return;
  const auto facts = factsOf(*consumer);
  consumer->resume();
  trace("Stream: Resumed", {{"peerId", facts.peerId}, {"kind", text(facts.kind)}},
        _context->spans.consumer(consumerId));
  if (facts.kind != MediaType::video) return;
  onMain(_context,
         [facts, trackId = consumer->track()->id()](RoomContext&, RoomClientDelegate& meeting) {
           meeting.handleStreamStateChange(StreamState::ACTIVE, facts.peerId, trackId);
         });
}

void Consuming::handleConsumerLayersChanged(const std::string& consumerId, const Dictionary& data) {
  const auto consumer = _registry->consumer(consumerId);
  if (!consumer) return;
  const auto spatialLayer = integer(data, "spatialLayer");
  const auto temporalLayer = integer(data, "temporalLayer");
  if (!spatialLayer || !temporalLayer) return;
  const auto facts = factsOf(*consumer);
  trace([&] { return "Consumer layers changed for peerId: " + facts.peerId; },
        {{"consumerId", consumerId},
         {"spatialLayer", *spatialLayer},
         {"temporalLayer", *temporalLayer}},
        _context->spans.consumer(consumerId));
}

void Consuming::recordUnsupportedCodec(VideoCodec codec) {
  std::scoped_lock held(_unsupportedCodecsLock);
  auto& codecs = _unsupportedCodecsList;
  if (std::find(codecs.begin(), codecs.end(), codec) == codecs.end()) codecs.push_back(codec);
}

std::vector<VideoCodec> Consuming::unsupportedCodecs() const {
  std::scoped_lock held(_unsupportedCodecsLock);
  return _unsupportedCodecsList;
}

void Consuming::onTransportClose(const std::shared_ptr<Consumer>& consumer) {
  traceDebug("Transport is closed",
             {{"kind", consumer->kind() == MediaKind::audio ? "audio" : "video"}});
}

}  // namespace kestrova
