#include <kestrova/platform/Queue.h>
#include <kestrova/realtime/PubSubLegacyRoute.h>
#include <kestrova/realtime/RealtimeTrace.h>
#include <kestrova/signalling/Response.h>
#include <kestrova/tracing/Trace.h>

#include <atomic>
#include <utility>

namespace kestrova {
namespace {

constexpr const char* domain = "com.kestrova.pubsub";
constexpr const char* publishTimedOut =
    "Message publishing timed out. Please check your network connection and try again.";

void reportAnswer(const char* before, const Dictionary& response) {
  traceRouted([&] { return before + jsonText(response).value_or(""); });
}

/// \throws PlatformError unless the message was taken
void judgePublish(const Dictionary& response) {
  const auto* data = dictionary(response, "data");
  if (!data) throw PlatformError(domain, -1, publishTimedOut);
  const auto message = text(*data, "message", "");
  if (message.empty()) return;
  traceRouted([&] { return "Error in publish() method: " + message; });
  throw PlatformError(
      domain, integer(*data, "errorCode", -1),
      message == "operation has timed out" ? publishTimedOut : "Pubsub Publish Error : " + message);
}

/// The stored messages in the answer to a subscription; nothing when it is a list of anything else.
std::optional<std::vector<PubSubMessage>> storedMessages(const Dictionary& response) {
  const auto* data = dictionary(response, "data");
  const auto* messages = data ? list(*data, "messages") : nullptr;
  if (!messages) return std::nullopt;
  std::vector<PubSubMessage> stored;
  for (const auto& message : *messages) {
    if (!message.is_object()) return std::nullopt;
    stored.push_back(PubSubMessage::fromJson(message.get_object()));
  }
  return stored;
}

}  // namespace

Task<void> PubSubLegacyRoute::publish(std::string topic, std::string message, Dictionary options,
                                      Dictionary payload) {
  const auto self = shared_from_this();
  Dictionary body{{"topic", std::move(topic)},
                  {"message", std::move(message)},
                  {"options", std::move(options)},
                  {"payload", std::move(payload)}};
  auto asking = _routing->roomClient->requests()->prepareAndSendRequest(LocalEvent::pubsubPublish,
                                                                        std::move(body));
  judgePublish(co_await std::move(asking));
}

Task<void> PubSubLegacyRoute::subscribe(std::string topic, Listener listener) {
  const auto self = shared_from_this();
  traceRealtime("Router[legacy]: subscribe", {{"topic", topic}});
  bool isDuplicate = _routing->subscribers.contains(topic, listener);
  if (!isDuplicate) {
    const std::weak_ptr<PubSubMessageListener> weak = listener;
    listener.reset();  // it is the application's to keep
    const auto twice = std::make_shared<std::atomic<bool>>(false);
    auto onArrival = [self, topic, weak, twice,
                      clearings = _routing->subscribers.clearings()](const Dictionary& response) {
      // Of the meeting that was left meanwhile, or of a connection that is gone.
      if (self->_routing->subscribers.clearings() != clearings) return;
      *twice = !self->subscribed(topic, weak.lock(), response);
    };
    auto asking = _routing->roomClient->requests()->prepareAndSendRequest(
        LocalEvent::pubsubSubscribe, {{"topic", topic}}, std::nullopt, std::move(onArrival));
    co_await std::move(asking);
    isDuplicate = *twice;
  }
  if (!isDuplicate) co_return;
  traceRealtime("Router[legacy]: duplicate subscribe rejected — already subscribed");
  throw PubSubError(PubSubError::Kind::alreadySubscribed);
}

/// Before anything that the service says next, so that no message falls between history and live.
bool PubSubLegacyRoute::subscribed(const std::string& topic, const Listener& listener,
                                   const Dictionary& response) {
  if (!isStatusOK(response).ok) reportAnswer("Error in subscribe() method: ", response);
  auto stored = storedMessages(response);
  if (!stored) {
    traceRealtime("Router[legacy]: subscribe failed", {{"topic", topic}});
    reportAnswer("Error while subscribing to topic: ", response);
    return true;
  }
  if (!listener) return true;
  if (!_routing->subscribers.add(topic, listener)) return false;
  traceRealtime("Router[legacy]: subscribed", {{"topic", topic}, {"historyCount", stored->size()}});
  const auto listeners = _routing->subscribers.find(topic);
  if (stored->empty() || !listeners) return true;
  MainQueue::shared().async([listeners, messages = std::move(*stored)] {
    listeners->invoke([&](auto& each) { each.onOldMessagesReceived(messages, {.isLast = true}); });
  });
  return true;
}

Task<void> PubSubLegacyRoute::unsubscribe(std::string topic, Listener listener) {
  const auto self = shared_from_this();
  traceRealtime("Router[legacy]: unsubscribe", {{"topic", topic}});
  const auto removal = _routing->subscribers.remove(topic, listener);
  if (!removal.topicFound) throw PubSubError(PubSubError::Kind::noSubscribedListener);
  if (!removal.lastGone) co_return;
  traceRealtime("Router[legacy]: last listener gone — unsubscribing on server", {{"topic", topic}});
  Dictionary body{{"topic", std::move(topic)}};
  auto asking = _routing->roomClient->requests()->prepareAndSendRequest(
      LocalEvent::pubsubUnsubscribe, std::move(body));
  const Dictionary response = co_await std::move(asking);
  if (!isStatusOK(response).ok) reportAnswer("Error while unsubscribing to topic: ", response);
}

void PubSubLegacyRoute::onMessageReceived(PubSubMessage message) {
  const auto listeners = _routing->subscribers.find(message.topic);
  traceRealtime("Router[legacy]: live message received",
                {{"topic", message.topic}, {"hasListener", listeners != nullptr}});
  if (!listeners) return;
  MainQueue::shared().async([listeners, message = std::move(message)] {
    listeners->invoke([&](auto& listener) { listener.onMessageReceived(message); });
  });
}

}  // namespace kestrova
