#include <kestrova/realtime/PubSub.h>
#include <kestrova/realtime/PubSubFastwsRoute.h>
#include <kestrova/realtime/PubSubLegacyRoute.h>
#include <kestrova/realtime/RealtimeTrace.h>

#include <utility>

namespace kestrova {
namespace {

/// The route of one call, chosen as it begins.
bool takesFastws(const PubSubRouting& routing, std::string_view call, const std::string& topic) {
  const bool fastws = routing.roomClient->pubSubEndpointStore().pubSubUrl().has_value();
  traceRealtime(call, {{"topic", topic}, {"fastws", fastws}});
  return fastws;
}

Task<void> publishBy(std::shared_ptr<PubSubRouting> routing,
                     std::shared_ptr<PubSubFastwsRoute> fastws,
                     std::shared_ptr<PubSubLegacyRoute> legacy, std::string topic,
                     std::string message, Dictionary options, Dictionary payload) {
  routing->assertMeetingActive("publish");
  auto publishing = takesFastws(*routing, "Router: publish() called", topic)
                        ? fastws->publish(std::move(topic), std::move(message), std::move(options),
                                          std::move(payload))
                        : legacy->publish(std::move(topic), std::move(message), std::move(options),
                                          std::move(payload));
  co_await std::move(publishing);
}

Task<void> subscribeBy(std::shared_ptr<PubSubRouting> routing,
                       std::shared_ptr<PubSubFastwsRoute> fastws,
                       std::shared_ptr<PubSubLegacyRoute> legacy, std::string topic,
                       PubSub::Listener listener, PubSubSubscribeOptions options) {
  routing->assertMeetingActive("subscribe");
  const bool overFastws = takesFastws(*routing, "Router: subscribe() called", topic);
  try {
    options.validated();
  } catch (const PubSubError& error) {
    traceRealtime("Router: subscribe() options invalid — throwing",
                  {{"topic", topic}, {"error", error.what()}});
    throw;
  }
  if (!listener)
    throw PubSubError(PubSubError::Kind::subscribeFailed,
                      "Pubsub Subscribe Error : no listener was given");
  auto subscribing = overFastws ? fastws->subscribe(std::move(topic), std::move(listener), options)
                                : legacy->subscribe(std::move(topic), std::move(listener));
  co_await std::move(subscribing);
}

Task<void> unsubscribeBy(std::shared_ptr<PubSubRouting> routing,
                         std::shared_ptr<PubSubFastwsRoute> fastws,
                         std::shared_ptr<PubSubLegacyRoute> legacy, std::string topic,
                         PubSub::Listener listener) {
  routing->assertMeetingActive("unsubscribe");
  auto unsubscribing = takesFastws(*routing, "Router: unsubscribe() called", topic)
                           ? fastws->unsubscribe(std::move(topic), std::move(listener))
                           : legacy->unsubscribe(std::move(topic), std::move(listener));
  co_await std::move(unsubscribing);
}

}  // namespace

PubSub::PubSub(std::shared_ptr<RoomClient> roomClient, std::weak_ptr<RealtimeMeeting> meeting)
    : _routing(std::make_shared<PubSubRouting>(std::move(roomClient), std::move(meeting))),
      _fastws(std::make_shared<PubSubFastwsRoute>(_routing)),
      _legacy(std::make_shared<PubSubLegacyRoute>(_routing)) {}

PubSub::~PubSub() {
  _fastws->teardown();
}

Task<void> PubSub::publish(std::string topic, std::string message, Dictionary options,
                           Dictionary payload) {
  return publishBy(_routing, _fastws, _legacy, std::move(topic), std::move(message),
                   std::move(options), std::move(payload));
}

Task<void> PubSub::subscribe(std::string topic, const Listener& forListener,
                             PubSubSubscribeOptions options) {
  return subscribeBy(_routing, _fastws, _legacy, std::move(topic), forListener, options);
}

Task<void> PubSub::unsubscribe(std::string topic, const Listener& forListener) {
  return unsubscribeBy(_routing, _fastws, _legacy, std::move(topic), forListener);
}

void PubSub::onMessageReceived(PubSubMessage message) {
  _legacy->onMessageReceived(std::move(message));
}

void PubSub::teardown() {
  _fastws->teardown();
}

}  // namespace kestrova
