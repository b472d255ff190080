#include <kestrova/platform/Platform.h>
#include <kestrova/realtime/ProtoReader.h>
#include <kestrova/realtime/PubSubWireClient.h>
#include <kestrova/realtime/RealtimeTrace.h>

#include <algorithm>
#include <utility>

namespace kestrova {

using std::chrono::milliseconds;

std::shared_ptr<PubSubWireClient> PubSubWireClient::make(std::shared_ptr<PubSubTransport> transport,
                                                         std::shared_ptr<SerialQueue> queue) {
  std::shared_ptr<PubSubWireClient> client(
      new PubSubWireClient(std::move(transport), std::move(queue)));
  client->attach();
  return client;
}

PubSubWireClient::PubSubWireClient(std::shared_ptr<PubSubTransport> transport,
                                   std::shared_ptr<SerialQueue> queue)
    : _transport(std::move(transport)),
      _queue(std::move(queue)),
      _scheduler(Platform::current()->scheduler),
      _deadlines(std::make_shared<Deadlines>(_queue, operationTimeout)) {}

PubSubWireClient::~PubSubWireClient() = default;

void PubSubWireClient::attach() {
  _transport->onOpen = [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->handleOpen();
  };
  _transport->onFrame = [weak = weak_from_this()](ByteView frame) {
    if (const auto self = weak.lock()) self->handleFrame(frame);
  };
  _transport->onClose = [weak = weak_from_this()](bool unexpected) {
    if (const auto self = weak.lock()) self->handleClose(unexpected);
  };
}

// ---- Operations --------------------------------------------------------------------------------

/// Runs `step(client, settle)` on the queue and waits for what it settles.
/// \param whenGone the error when the client has gone by then; null for success
template <class Step>
Task<PubSubWireClient::Resolution> PubSubWireClient::perform(Step step, const char* whenGone) {
  auto start = [weak = weak_from_this(), queue = _queue, step = std::move(step),
                whenGone](Completion<Resolution> done) mutable {
    queue->async([weak, step = std::move(step), whenGone, done = std::move(done)]() mutable {
      if (const auto self = weak.lock()) return step(*self, Settle(std::move(done)));
      done(whenGone ? Resolution{whenGone, {}} : Resolution{});
    });
  };
  return awaitCallback<Resolution>(std::move(start));
}

Task<std::string> PubSubWireClient::acknowledged(Task<Resolution> waiting) {
  auto resolution = co_await std::move(waiting);
  if (resolution.error) throw PubSubWireError(*resolution.error);
  co_return std::move(resolution.messageId);
}

Task<void> PubSubWireClient::settled(Task<Resolution> waiting) {
  auto acknowledging = acknowledged(std::move(waiting));
  co_await std::move(acknowledging);
}

Task<void> PubSubWireClient::subscribe(FastwsSubscribeParams params, bool waitForHistoryComplete) {
  auto step = [params = std::move(params), waitForHistoryComplete](PubSubWireClient& self,
                                                                   Settle settle) mutable {
    self.subscribeLocked(std::move(params), waitForHistoryComplete, std::move(settle));
  };
  return settled(perform(std::move(step), nullptr));
}

Task<std::string> PubSubWireClient::publish(FastwsPublishParams params) {
  auto step = [params = std::move(params)](PubSubWireClient& self, Settle settle) mutable {
    self.publishLocked(std::move(params), std::move(settle));
  };
  return acknowledged(perform(std::move(step), PubSubWireError::closed));
}

Task<void> PubSubWireClient::sendUnsubscribe(std::string topic, std::string requestId,
                                             std::function<bool()> isWanted) {
  auto step = [topic = std::move(topic), requestId = std::move(requestId),
               isWanted = std::move(isWanted)](PubSubWireClient& self, Settle settle) mutable {
    self.unsubscribeLocked(topic, std::move(requestId), isWanted, settle);
  };
  return settled(perform(std::move(step), nullptr));
}

void PubSubWireClient::removeSubscription(std::string requestId) {
  _queue->async([weak = weak_from_this(), requestId = std::move(requestId)] {
    traceRealtime("Wire: removeSubscription", {{"requestId", requestId}});
    if (const auto self = weak.lock()) self->_subscriptions.erase(requestId);
  });
}

void PubSubWireClient::close() {
  _queue->async([self = shared_from_this()] { self->closeLocked(); });
}

void PubSubWireClient::subscribeLocked(FastwsSubscribeParams params, bool waitForHistoryComplete,
                                       Settle settle) {
  if (_hasClosed) {
    traceRealtime("Wire: subscribe rejected — client closed", {{"topic", params.topic}});
    return settle({PubSubWireError::closed, {}});
  }
  traceRealtime("Wire: subscribe", {{"topic", params.topic},
                                    {"requestId", params.requestId},
                                    {"oldMessageLimit", params.oldMessageLimit},
                                    {"overflow", params.realtimeOverflow},
                                    {"queueSize", params.queueSize},
                                    {"newMessageLimit", params.newMessageLimit},
                                    {"waitForHistory", waitForHistoryComplete}});
  _subscriptions.insert_or_assign(params.requestId, SubscriptionEntry{params});
  enqueueOrRun(
      [this, params, waitForHistoryComplete, settle] {
        registerPending(params.requestId, {.kind = PendingRequest::Kind::subscribe,
                                           .topic = params.topic,
                                           .onSettle = settle,
                                           .waitForHistoryComplete = waitForHistoryComplete});
        // It may have been taken away while the transport was down.
        const auto entry = _subscriptions.find(params.requestId);
        if (entry != _subscriptions.end()) entry->second.established = true;
        sendMessage({params.makeSubscribe()});
      },
      [this, requestId = params.requestId, settle](const char* error) {
        _subscriptions.erase(requestId);
        settle({error, {}});
      });
}

void PubSubWireClient::publishLocked(FastwsPublishParams params, Settle settle) {
  if (_hasClosed) {
    traceRealtime("Wire: publish rejected — client closed", {{"topic", params.topic}});
    return settle({PubSubWireError::closed, {}});
  }
  traceRealtime("Wire: publish", {{"topic", params.topic},
                                  {"requestId", params.requestId},
                                  {"messageId", params.messageId},
                                  {"persist", params.persist},
                                  {"sendOnlyCount", params.sendOnly.size()},
                                  {"payloadBytes", params.payload.size()}});
  auto frame = FastwsClientMessage{params.makePublish()}.encoded();
  if (frame.size() > mostFrameBytes) return settle({PubSubWireError::tooLarge, {}});
  auto fail = [settle](const char* error) { settle({error, {}}); };
  enqueueOrRun(
      [this, requestId = std::move(params.requestId), topic = std::move(params.topic),
       frame = std::move(frame), settle = std::move(settle)]() mutable {
        registerPending(requestId, {.kind = PendingRequest::Kind::publish,
                                    .topic = std::move(topic),
                                    .onSettle = std::move(settle)});
        _transport->send(std::move(frame), {});
      },
      std::move(fail));
}

void PubSubWireClient::unsubscribeLocked(const std::string& topic, std::string requestId,
                                         const std::function<bool()>& isWanted,
                                         const Settle& settle) {
  traceRealtime("Wire: unsubscribe", {{"topic", topic}, {"requestId", requestId}});
  if (isWanted && isWanted()) return settle({});
  std::erase_if(_subscriptions,
                [&](const auto& entry) { return entry.second.params.topic == topic; });
  forgetTopic(topic);
  if (_hasClosed) {
    traceRealtime("Wire: unsubscribe rejected — client closed", {{"topic", topic}});
    return settle({PubSubWireError::closed, {}});
  }
  enqueueOrRun(
      [this, topic, requestId = std::move(requestId), settle] {
        registerPending(
            requestId,
            {.kind = PendingRequest::Kind::unsubscribe, .topic = topic, .onSettle = settle});
        sendMessage({FastwsUnsubscribe{topic, requestId}});
      },
      [settle](const char* error) {
        settle({error, {}});
      });
}

// ---- What waits --------------------------------------------------------------------------------

/// The first operation is what opens the transport.
void PubSubWireClient::enqueueOrRun(Work send, std::function<void(const char* error)> fail) {
  if (_isOpen) return send();
  const auto id = ++_lastQueuedId;
  const auto timeout = _deadlines->add([weak = weak_from_this(), id] {
    if (const auto self = weak.lock()) self->queuedTimedOut(id);
  });
  _queuedOps.push_back({id, std::move(send), std::move(fail), timeout});
  _transport->connect();
}

void PubSubWireClient::queuedTimedOut(std::uint64_t id) {
  const auto found = std::find_if(_queuedOps.begin(), _queuedOps.end(),
                                  [&](const QueuedOp& queued) { return queued.id == id; });
  if (found == _queuedOps.end()) return;
  traceRealtime("Wire: queued op timed out before the socket reopened");
  const auto queued = std::move(*found);
  _queuedOps.erase(found);
  queued.fail(PubSubWireError::timedOut);
}

void PubSubWireClient::registerPending(const std::string& requestId, PendingRequest pending) {
  pending.timeout = _deadlines->add([weak = weak_from_this(), requestId] {
    if (const auto self = weak.lock()) self->timedOut(requestId);
  });
  _pendings.insert_or_assign(requestId, std::move(pending));
}

void PubSubWireClient::timedOut(const std::string& requestId) {
  const auto pending = takePending(requestId);
  if (!pending) return;
  traceRealtime("Wire: request timed out", {{"requestId", requestId}, {"topic", pending->topic}});
  if (pending->kind == PendingRequest::Kind::subscribe) _subscriptions.erase(requestId);
  pending->onSettle({PubSubWireError::timedOut, {}});
}

/// Whoever takes a request settles it, so it is settled once.
std::optional<PubSubWireClient::PendingRequest> PubSubWireClient::takePending(
    std::string_view requestId) {
  const auto found = _pendings.find(requestId);
  if (found == _pendings.end()) return std::nullopt;
  auto pending = std::move(found->second);
  _pendings.erase(found);
  _deadlines->cancel(pending.timeout);
  return pending;
}

void PubSubWireClient::failPendings(const char* error) {
  for (const auto& [requestId, pending] : std::exchange(_pendings, {})) {
    _deadlines->cancel(pending.timeout);
    if (pending.kind == PendingRequest::Kind::subscribe) _subscriptions.erase(requestId);
    pending.onSettle({error, {}});
  }
}

void PubSubWireClient::failQueued(const char* error) {
  for (const auto& queued : std::exchange(_queuedOps, {})) {
    _deadlines->cancel(queued.timeout);
    queued.fail(error);
  }
}

void PubSubWireClient::sendMessage(const FastwsClientMessage& message) {
  _transport->send(message.encoded(), {});
}

// ---- The transport -----------------------------------------------------------------------------

void PubSubWireClient::handleOpen() {
  _isOpen = true;
  const bool firstOpen = !std::exchange(_everOpened, true);
  traceRealtime("Wire: transport open", {{"firstOpen", firstOpen},
                                         {"activeSubscriptions", _subscriptions.size()},
                                         {"queuedOps", _queuedOps.size()}});
  std::vector<std::string> established;
  if (!firstOpen)
    for (const auto& [requestId, entry] : _subscriptions)
      if (entry.established) established.push_back(requestId);
  for (auto& queued : std::exchange(_queuedOps, {})) {
    _deadlines->cancel(queued.timeout);
    queued.send();
  }
  if (!established.empty()) replay(established);
}

/// Without history: what was missed meanwhile is not fetched.
void PubSubWireClient::replay(const std::vector<std::string>& requestIds) {
  traceRealtime("Wire: replaying subscriptions on reconnect", {{"count", requestIds.size()}});
  for (const auto& requestId : requestIds) {
    const auto& params = _subscriptions.at(requestId).params;
    traceRealtime("Wire: replay subscribe", {{"topic", params.topic}, {"requestId", requestId}});
    registerPending(requestId, {.kind = PendingRequest::Kind::subscribeReplay,
                                .topic = params.topic,
                                .onSettle = [this, requestId,
                                             topic = params.topic](const Resolution& resolution) {
                                  if (!resolution.error && onReplayed) onReplayed(requestId, topic);
                                }});
    auto subscribe = params.makeSubscribe();
    subscribe.oldMessageLimit = 0;
    sendMessage({subscribe});
  }
}

void PubSubWireClient::handleClose(bool unexpected) {
  _isOpen = false;
  _serverPingWatchdog.reset();
  traceRealtime("Wire: transport closed", {{"unexpected", unexpected},
                                           {"pendings", _pendings.size()},
                                           {"queuedOps", _queuedOps.size()},
                                           {"keptSubscriptions", _subscriptions.size()}});
  failPendings(PubSubWireError::disconnected);
  forgetTopics();
  if (!unexpected) return failQueued(PubSubWireError::closed);
  if (_everOpened) return;  // what is queued waits for the next connection
  failQueued(PubSubWireError::disconnected);
  std::erase_if(_subscriptions, [](const auto& entry) { return !entry.second.established; });
}

void PubSubWireClient::closeLocked() {
  traceRealtime("Wire: close (intentional)", {{"subscriptions", _subscriptions.size()},
                                              {"pendings", _pendings.size()},
                                              {"queuedOps", _queuedOps.size()}});
  _hasClosed = true;
  _serverPingWatchdog.reset();
  failPendings(PubSubWireError::closed);
  failQueued(PubSubWireError::closed);
  _subscriptions.clear();
  forgetTopics();
  _transport->close(true);
}

void PubSubWireClient::forgetTopic(const std::string& topic) {
  _replays.forget(topic);
  _sequences.forget(topic);
}

void PubSubWireClient::forgetTopics() {
  _replays.clear();
  _sequences.clear();
}

// ---- What the server says ----------------------------------------------------------------------

void PubSubWireClient::handleFrame(ByteView frame) {
  if (_hasClosed) return;  // it was on its way
  try {
    const FastwsServerEnvelope envelope(frame);
    std::visit([this](const auto& message) { handle(message); }, envelope.kind);
  } catch (const ProtoDecodeError&) {
    traceRealtime("Wire: dropping undecodable server frame", {{"bytes", frame.size()}});
  }
}

void PubSubWireClient::handle(const FastwsAck& ack) {
  const auto pending = takePending(ack.requestId);
  if (!pending) {
    // An agreement that history has overtaken says nothing new.
    if (!ack.ok && !ack.error.empty())
      traceRealtime("Wire: unmatched ack error",
                    {{"requestId", ack.requestId}, {"error", ack.error}});
    return;
  }
  if (ack.ok) {
    traceRealtime("Wire: ack ok", {{"requestId", ack.requestId}, {"topic", pending->topic}});
    // What was still on its way may have brought the topic back.
    if (pending->kind == PendingRequest::Kind::unsubscribe) forgetTopic(pending->topic);
    return pending->onSettle({std::nullopt, std::string(ack.messageId)});
  }
  traceRealtime("Wire: ack error",
                {{"requestId", ack.requestId}, {"topic", pending->topic}, {"error", ack.error}});
  if (pending->kind == PendingRequest::Kind::subscribe)
    if (const auto entry = _subscriptions.find(ack.requestId); entry != _subscriptions.end())
      _subscriptions.erase(entry);
  pending->onSettle({ack.error.empty() ? PubSubWireError::refused : std::string(ack.error), {}});
}

void PubSubWireClient::handle(const FastwsServerBatch& batch) {
  if (batch.batchType == FastwsServerBatch::oldMessages)
    handleHistoryBatch(batch);
  else
    handleLiveBatch(batch);
}

void PubSubWireClient::handle(const FastwsWelcome& welcome) {
  const auto interval = welcome.pingIntervalMs ? welcome.pingIntervalMs : defaultPingIntervalMs;
  traceRealtime("Wire: welcome received",
                {{"pingIntervalMs", welcome.pingIntervalMs}, {"effectiveIntervalMs", interval}});
  _serverPingIntervalMs = interval;
  restartServerPingWatchdog();
}

void PubSubWireClient::handle(const FastwsPing& ping) {
  traceRealtime("Wire: server ping received — replying pong", {{"seq", ping.seq}});
  _lastServerPingSeq = ping.seq;
  restartServerPingWatchdog();
  sendMessage({FastwsPong{ping.seq}});
}

// ---- History -----------------------------------------------------------------------------------

void PubSubWireClient::handleHistoryBatch(const FastwsServerBatch& batch) {
  const auto messages = batch.decodedMessages();
  const auto owner = _replays.ownerOf(batch.topic, batch.requestId);
  if (!owner)
    return traceRealtime("Wire: history batch dropped — no owner",
                         {{"topic", batch.topic}, {"count", messages.size()}});
  traceRealtime("Wire: history batch", {{"topic", batch.topic},
                                        {"requestId", *owner},
                                        {"count", messages.size()},
                                        {"isLast", batch.isLast}});
  if (onHistoryMessages) onHistoryMessages(*owner, batch.topic, messages, batch.isLast);
  const auto pending = _pendings.find(*owner);
  if (pending != _pendings.end() && pending->second.kind == PendingRequest::Kind::subscribe &&
      (batch.isLast || !pending->second.waitForHistoryComplete))
    takePending(*owner)->onSettle({});
  if (batch.isLast) _replays.end(batch.topic, *owner);
}

// ---- Live messages -----------------------------------------------------------------------------

void PubSubWireClient::handleLiveBatch(const FastwsServerBatch& batch) {
  Messages kept;
  kept.reserve(batch.payloads.size());
  std::uint64_t dropped = 0;
  for (const auto& payload : batch.payloads) {
    try {
      kept.emplace_back(payload);
      dropped += _sequences.note(batch.topic, kept.back().seqNum);
    } catch (const ProtoDecodeError& error) {
      traceRealtime(std::string("PubSub v2 undecodable payload dropped: ") + error.what());
    }
  }
  if (dropped > 0) {
    const auto counts = [&](const char* beforeDropped, const char* beforeKept) {
      return std::string(batch.topic) + beforeDropped + std::to_string(dropped) + beforeKept +
             std::to_string(kept.size()) + " }";
    };
    traceRealtime("PubSub v2 DROP-MECH1-HOLE { topic: " + counts(", dropped: ", ", kept: "));
    traceRealtime("[LOADTEST] SEQ-DROP { topic=" + counts(" dropped=", " kept="));
    if (onMessageDrop) onMessageDrop(batch.topic, dropped);
  }
  if (!kept.empty() && onLiveMessages) onLiveMessages(batch.topic, kept);
}

// ---- Silence -----------------------------------------------------------------------------------

void PubSubWireClient::restartServerPingWatchdog() {
  const std::uint64_t interval =
      _serverPingIntervalMs ? _serverPingIntervalMs : defaultPingIntervalMs;
  _serverPingWatchdog = _scheduler->after(
      milliseconds(interval * 2),
      [weak = weak_from_this(), queue = _queue, watch = ++_serverPingWatch] {
        queue->async([weak, watch] {
          const auto self = weak.lock();
          // A ping may have come while this was on its way.
          if (self && self->_serverPingWatchdog && self->_serverPingWatch == watch)
            self->serverPingTimedOut();
        });
      });
}

void PubSubWireClient::serverPingTimedOut() {
  _serverPingWatchdog.reset();
  const auto interval = _serverPingIntervalMs ? _serverPingIntervalMs : defaultPingIntervalMs;
  SdkTracer::shared().routedEvent(
      [&] {
        return "No server ping for " + std::to_string(interval / 500) +
               "s (interval=" + std::to_string(interval / 1000) +
               "s, last seq=" + std::to_string(_lastServerPingSeq) + ")";
      },
      {.targetMask = targetMasks::backendLog, .category = EventCategory::error});
  traceRealtime("Wire: server-ping watchdog fired — forcing reconnect",
                {{"timeoutSec", interval / 500}, {"lastSeq", _lastServerPingSeq}});
  _transport->reconnect();
}

}  // namespace kestrova
