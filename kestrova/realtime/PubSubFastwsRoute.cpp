#include <kestrova/realtime/PubSubFastwsRoute.h>
#include <kestrova/realtime/PubSubSocket.h>
#include <kestrova/realtime/RealtimeTrace.h>
#include <kestrova/realtime/RequestIds.h>
#include <kestrova/tracing/Trace.h>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/url/parse.hpp>

#include <algorithm>
#include <ctime>
#include <limits>
#include <utility>

namespace kestrova {

struct PubSubFastwsRoute::Operation {
  PubSubError::Kind kind;
  const KestrovaError* error;
  const char* timedOut;
  const char* failed;
  const char* reported;
};

const PubSubFastwsRoute::Operation PubSubFastwsRoute::publishing{
    PubSubError::Kind::publishFailed, &KestrovaError::PUBSUB_PUBLISH_FAILED,
    "Message publishing timed out. Please check your network connection and try again.",
    "Pubsub Publish Error : ", "Error in publish() method: "};
const PubSubFastwsRoute::Operation PubSubFastwsRoute::subscribing{
    PubSubError::Kind::subscribeFailed, &KestrovaError::PUBSUB_SUBSCRIBE_FAILED,
    "Subscribe timed out. Please check your network connection and try again.",
    "Pubsub Subscribe Error : ", "Error in subscribe() method: "};
const PubSubFastwsRoute::Operation PubSubFastwsRoute::unsubscribing{
    PubSubError::Kind::unsubscribeFailed, &KestrovaError::PUBSUB_UNSUBSCRIBE_FAILED,
    "Unsubscribe timed out. Please check your network connection and try again.",
    "Pubsub Unsubscribe Error : ", "Error while unsubscribing to topic: "};

namespace {

constexpr const char* noEndpoint = "Operation timeout.";
constexpr const char* notUtf8 = "a text is not valid UTF-8";

std::int32_t clamped(std::int64_t value) {
  using Limits = std::numeric_limits<std::int32_t>;
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(value, Limits::min(), Limits::max()));
}

/// Such as "2026-01-31T12:00:00Z".
std::string iso8601(std::int64_t wallClockMs) {
  const std::time_t seconds = wallClockMs / 1000;
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[sizeof "-2147483648-01-01T00:00:00Z"];
  return {text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc)};
}

/// The list of texts, or nothing when it is anything else.
std::vector<std::string> textsOf(const List* list) {
  std::vector<std::string> found;
  if (!list) return found;
  for (const auto& entry : *list) {
    if (!entry.is_string()) return {};
    found.emplace_back(entry.get_string());
  }
  return found;
}

bool allUtf8(const FastwsPublishParams& params) {
  return isUtf8(params.topic) && isUtf8(params.message) && isUtf8(params.senderId) &&
         isUtf8(params.senderName) &&
         std::all_of(params.sendOnly.begin(), params.sendOnly.end(),
                     [](const std::string& id) { return isUtf8(id); });
}

/// About what the message will take once it is a `PubSubMessage`; JSON grows when it is read.
std::size_t weight(std::string_view topic, const FastwsServerMessage& message) {
  constexpr std::size_t jsonGrowth = 8;
  return sizeof(PubSubMessage) + topic.size() + message.messageId.size() + message.message.size() +
         message.senderId.size() + message.senderName.size() + message.timestamp.size() +
         jsonGrowth * message.payload.size() + sizeof(std::string) * message.sendOnly.size();
}

/// The messages as listeners get them, and what they weigh together.
struct Delivery {
  Delivery(std::string_view topic, const PubSubWireClient::Messages& fastws) {
    messages.reserve(fastws.size());
    for (const auto& message : fastws) {
      messages.push_back(PubSubMessage::fromFastws(topic, message));
      bytes += weight(topic, message);
    }
  }
  std::vector<PubSubMessage> messages;
  std::size_t bytes = 0;
};

PubSubMessageDropInfo dropInfo(std::uint64_t count) {
  constexpr std::uint64_t most = std::numeric_limits<std::int64_t>::max();
  return {static_cast<std::int64_t>(std::min(count, most))};
}

void traceNewClient(const boost::urls::url_view& url) {
  if (boost::algorithm::to_lower_copy(std::string(url.scheme())) == "ws")
    traceRealtime("Router: connecting over insecure ws:// — production should use wss://");
  const std::string host = url.host();
  traceRealtime("Router: lazily creating fastws socket + wire client",
                {{"host", host.empty() ? "-" : host}});
}

}  // namespace

PubSubFastwsRoute::PubSubFastwsRoute(std::shared_ptr<PubSubRouting> routing)
    : _routing(std::move(routing)) {}

// ---- The wire client ---------------------------------------------------------------------------

std::shared_ptr<PubSubWireClient> PubSubFastwsRoute::ensureWireClient() {
  const auto url = _routing->roomClient->pubSubEndpointStore().pubSubUrl();
  // An operation that began just before a move may have made one for where topics were served.
  if (url && isMadeForAnother(*url)) teardown();
  const auto address = url.value_or("");
  const auto parsed = boost::urls::parse_uri(address);
  std::shared_ptr<PubSubWireClient> client;
  bool isNew = false;
  {
    std::scoped_lock held(_lock);
    isNew = !_wireClient && parsed.has_value();
    if (isNew) {
      _url = address;
      _wireClient = makeWireClient(_url);
    }
    client = _wireClient;
  }
  if (isNew)
    traceNewClient(*parsed);
  else
    traceRealtime(client ? "Router: reusing existing wire client"
                         : "Router: ensureWireClient — no fastws endpoint");
  return client;
}

bool PubSubFastwsRoute::isMadeForAnother(const std::string& url) {
  std::scoped_lock held(_lock);
  return _wireClient && _url != url;
}

/// Not connected yet: the first operation does that.
std::shared_ptr<PubSubWireClient> PubSubFastwsRoute::makeWireClient(const std::string& url) {
  if (!_pubsubQueue) _pubsubQueue = SerialQueue::make("com.kestrova.pubsubQueue");
  auto client = PubSubWireClient::make(PubSubSocket::make(url, _pubsubQueue), _pubsubQueue);
  const auto weak = weak_from_this();
  client->onLiveMessages = [weak](std::string_view topic, const auto& messages) {
    if (const auto self = weak.lock()) self->handleFastwsLive(topic, messages);
  };
  client->onHistoryMessages = [weak](std::string_view requestId, std::string_view topic,
                                     const auto& messages, bool isLast) {
    if (const auto self = weak.lock())
      self->handleFastwsHistory(requestId, topic, messages, isLast);
  };
  client->onMessageDrop = [weak](std::string_view topic, std::uint64_t droppedCount) {
    if (const auto self = weak.lock()) self->handleFastwsDrop(topic, droppedCount);
  };
  client->onReplayed = [weak](std::string_view requestId, std::string_view topic) {
    if (const auto self = weak.lock()) self->handleFastwsReplayed(requestId, topic);
  };
  return client;
}

void PubSubFastwsRoute::teardown() {
  traceRealtime("Router: teardown — closing fastws client, clearing state");
  std::shared_ptr<PubSubWireClient> client;
  {
    std::scoped_lock held(_lock);
    client.swap(_wireClient);
  }
  _routing->subscribers.clear();
  if (client) client->close();
}

// ---- Publishing --------------------------------------------------------------------------------

Task<void> PubSubFastwsRoute::publish(std::string topic, std::string message, Dictionary options,
                                      Dictionary payload) {
  const auto self = shared_from_this();
  traceRealtime("Router[fastws]: publish", {{"topic", topic}});
  _routing->assertMeetingActive("publish");
  const auto client = ensureWireClient();
  if (!client) {
    traceRealtime("Router[fastws]: publish failed — no fastws endpoint", {{"topic", topic}});
    fail(publishing, noEndpoint);
  }
  auto params = makePublishParams(topic, std::move(message), options, payload);
  if (!allUtf8(params)) fail(publishing, notUtf8);
  std::string failure;
  try {
    auto waiting = client->publish(std::move(params));
    const auto messageId = co_await std::move(waiting);
    traceRealtime("Router[fastws]: publish acked", {{"topic", topic}, {"messageId", messageId}});
    co_return;
  } catch (const std::exception& error) {
    failure = error.what();
  }
  reportAndFail(publishing, failure);
}

FastwsPublishParams PubSubFastwsRoute::makePublishParams(std::string topic, std::string message,
                                                         const Dictionary& options,
                                                         const Dictionary& payload) const {
  const auto& local = _routing->roomClient->meetingData();
  FastwsPublishParams params{.topic = std::move(topic),
                             .message = std::move(message),
                             .payload = {},
                             .sendOnly = textsOf(list(options, "sendOnly")),
                             .persist = boolean(options, "persist", false),
                             .senderId = local.localParticipantId,
                             .senderName = local.localParticipantName,
                             .timestamp = iso8601(Platform::current()->scheduler->wallClockMs()),
                             .messageId = generateRequestId(),
                             .requestId = generateRequestId()};
  // What JSON can't carry is left out.
  const auto json = payload.empty() ? std::nullopt : jsonText(payload);
  if (json) {
    const auto bytes = bytesOf(*json);
    params.payload.assign(bytes.begin(), bytes.end());
  }
  return params;
}

// ---- Subscribing -------------------------------------------------------------------------------

Task<void> PubSubFastwsRoute::subscribe(std::string topic, Listener listener,
                                        PubSubSubscribeOptions options) {
  const auto self = shared_from_this();
  traceRealtime("Router[fastws]: subscribe", {{"topic", topic}});
  _routing->assertMeetingActive("subscribe");
  const auto client = ensureWireClient();
  if (!client) {
    traceRealtime("Router[fastws]: cannot subscribe — no fastws endpoint", {{"topic", topic}});
    fail(subscribing, noEndpoint);
  }
  if (!isUtf8(topic)) fail(subscribing, notUtf8);
  for (const auto& gone : _routing->subscribers.takeAbandoned()) client->removeSubscription(gone);
  const auto requestId = generateRequestId();
  // Before the frame goes out, since history may come before the server's agreement.
  if (!_routing->subscribers.add(topic, listener, requestId)) {
    traceRealtime("Router[fastws]: duplicate subscribe rejected — already subscribed",
                  {{"topic", topic}});
    throw PubSubError(PubSubError::Kind::alreadySubscribed);
  }
  listener.reset();  // it is the application's to keep
  std::string failure;
  try {
    auto waiting = client->subscribe(makeSubscribeParams(topic, requestId, options), false);
    co_await std::move(waiting);
    traceRealtime("Router[fastws]: subscribe settled",
                  {{"topic", topic}, {"requestId", requestId}});
    co_return;
  } catch (const std::exception& error) {
    failure = error.what();
  }
  _routing->subscribers.removeFailed(requestId);
  reportAndFail(subscribing, failure);
}

FastwsSubscribeParams PubSubFastwsRoute::makeSubscribeParams(
    std::string topic, std::string requestId, const PubSubSubscribeOptions& validated) const {
  const bool queues = validated.realtimeOverflow == RealtimeOverflow::queue;
  return {.topic = std::move(topic),
          .peerId = _routing->roomClient->meetingData().localParticipantId,
          .oldMessageLimit = clamped(validated.oldMessageLimit.value_or(-1)),
          .realtimeOverflow = std::string(rawValue(validated.realtimeOverflow)),
          .queueSize = queues ? clamped(validated.maxQueue.value_or(0)) : 0,
          .newMessageLimit = clamped(validated.newMessageLimit),
          .requestId = std::move(requestId)};
}

Task<void> PubSubFastwsRoute::unsubscribe(std::string topic, Listener listener) {
  const auto self = shared_from_this();
  traceRealtime("Router[fastws]: unsubscribe", {{"topic", topic}});
  const auto refuse = [&] {
    traceRealtime("Router[fastws]: unsubscribe — no active subscriber", {{"topic", topic}});
    throw PubSubError(PubSubError::Kind::noSubscribedListener);
  };
  if (!_routing->subscribers.has(topic)) refuse();
  _routing->assertMeetingActive("unsubscribe");
  const auto removal = _routing->subscribers.remove(topic, listener);
  if (!removal.topicFound) refuse();
  std::shared_ptr<PubSubWireClient> client;
  {
    std::scoped_lock held(_lock);
    client = _wireClient;
  }
  if (client)
    for (const auto& requestId : removal.requestIds) client->removeSubscription(requestId);
  if (!removal.lastGone) co_return;
  traceRealtime("Router[fastws]: last listener gone — sending Unsubscribe", {{"topic", topic}});
  if (!client) co_return;
  std::string failure;
  try {
    // Somebody may subscribe while this is on its way: the server then keeps sending.
    auto isWanted = [routing = _routing, topic] { return routing->subscribers.has(topic); };
    auto waiting = client->sendUnsubscribe(topic, generateRequestId(), std::move(isWanted));
    co_await std::move(waiting);
    co_return;
  } catch (const std::exception& error) {
    failure = error.what();
  }
  reportAndFail(unsubscribing, failure);
}

// ---- Failures ----------------------------------------------------------------------------------

void PubSubFastwsRoute::reportAndFail(const Operation& operation, const std::string& detail) const {
  traceRouted([&] { return operation.reported + detail; });
  fail(operation, detail);
}

void PubSubFastwsRoute::fail(const Operation& operation, const std::string& detail) const {
  const auto text =
      detail == PubSubWireError::timedOut ? operation.timedOut : operation.failed + detail;
  if (const auto meeting = _routing->meeting.lock())
    meeting->onError(operation.error->withCause(detail));
  throw PubSubError(operation.kind, text);
}

// ---- Deliveries --------------------------------------------------------------------------------

void PubSubFastwsRoute::handleFastwsLive(std::string_view topic,
                                         const PubSubWireClient::Messages& messages) {
  const auto listeners = _routing->subscribers.find(topic);
  traceRealtime(
      "Router[fastws]: deliver live batch",
      {{"topic", topic}, {"count", messages.size()}, {"hasListener", listeners != nullptr}});
  if (!listeners) return;
  const std::string stream(topic);
  if (!_deliveries.hasRoom())
    return _deliveries.lose(stream, messages.size(), [listeners](std::uint64_t lost) {
      listeners->invoke([&](auto& listener) { listener.onMessageDrop(dropInfo(lost)); });
    });
  Delivery delivery(topic, messages);
  _deliveries.deliver(stream, delivery.bytes, [listeners, arrived = std::move(delivery.messages)] {
    listeners->invoke([&](auto& listener) { listener.onBatchReceived(arrived); });
    for (const auto& message : arrived)
      listeners->invoke([&](auto& listener) { listener.onMessageReceived(message); });
  });
}

void PubSubFastwsRoute::handleFastwsHistory(std::string_view requestId, std::string_view topic,
                                            const PubSubWireClient::Messages& messages,
                                            bool isLast) {
  if (!_routing->subscribers.listenerOf(requestId))
    return traceRealtime("Router[fastws]: history batch — no live subscriber",
                         {{"topic", topic}, {"requestId", requestId}});
  traceRealtime("Router[fastws]: deliver history batch", {{"topic", topic},
                                                          {"requestId", requestId},
                                                          {"batchCount", messages.size()},
                                                          {"isLast", isLast},
                                                          {"legacyAggregate", false}});
  const std::string stream(requestId);
  const bool hasRoom = _deliveries.hasRoom();
  if (!hasRoom) {
    _deliveries.lose(stream, messages.size(), [routing = _routing, stream](std::uint64_t lost) {
      if (const auto listener = routing->subscribers.listenerOf(stream))
        listener->onMessageDrop(dropInfo(lost));
    });
    if (!isLast) return;  // that the replay is over is told all the same
  }
  Delivery delivery(topic, hasRoom ? messages : PubSubWireClient::Messages());
  _deliveries.deliver(stream, delivery.bytes,
                      [routing = _routing, stream, isLast, arrived = std::move(delivery.messages)] {
                        if (const auto listener = routing->subscribers.listenerOf(stream))
                          listener->onOldMessagesReceived(arrived, {isLast});
                      });
}

void PubSubFastwsRoute::handleFastwsReplayed(std::string_view requestId, std::string_view topic) {
  _deliveries.deliver(std::string(topic), 0, [routing = _routing, id = std::string(requestId)] {
    if (const auto listener = routing->subscribers.listenerOf(id)) listener->onReconnected();
  });
}

void PubSubFastwsRoute::handleFastwsDrop(std::string_view topic, std::uint64_t droppedCount) {
  const auto listeners = _routing->subscribers.find(topic);
  traceRealtime(
      "Router[fastws]: deliver message drop",
      {{"topic", topic}, {"droppedCount", droppedCount}, {"hasListener", listeners != nullptr}});
  if (!listeners) return;
  _deliveries.lose(std::string(topic), droppedCount, [listeners](std::uint64_t lost) {
    listeners->invoke([&](auto& listener) { listener.onMessageDrop(dropInfo(lost)); });
  });
}

}  // namespace kestrova
