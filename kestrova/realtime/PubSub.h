#pragma once

#include <kestrova/model/ListenerHandle.h>
#include <kestrova/platform/Task.h>
#include <kestrova/realtime/PubSubMessageListener.h>

#include <memory>
#include <string>
#include <utility>

namespace kestrova {

class PubSubFastwsRoute;
class PubSubLegacyRoute;
class RealtimeMeeting;
class RoomClient;
struct PubSubRouting;

/// Messages to topics, with history: what `Meeting::pubsub` gives.
///
///     auto chat = makeListener(PubSubMessageEvents{
///         .onMessageReceived = [](const auto& message) { print(message); }});
///     co_await meeting->pubsub()->subscribe("CHAT", chat);
///     co_await meeting->pubsub()->publish("CHAT", "hello", {{"persist", true}});
///
/// Any thread. What fails throws; `spawn` of platform/Queue.h starts an operation whose outcome
/// doesn't matter. A connection to the topic server that is lost is made anew, and the
/// subscriptions go on: messages of the meantime are missing, which `onReconnected` says. When the
/// meeting itself reconnects, moves to another or ends, all subscriptions are over:
/// `onMeetingJoined` is the time to subscribe again, and until then operations are refused.
class PubSub {
public:
  using Listener = std::shared_ptr<PubSubMessageListener>;

  PubSub(std::shared_ptr<RoomClient> roomClient, std::weak_ptr<RealtimeMeeting> meeting);
  ~PubSub();
  PubSub(const PubSub&) = delete;
  PubSub& operator=(const PubSub&) = delete;

  /// Sends `message` to everybody who is subscribed, this participant too. Returns when the service
  /// has it.
  /// \param options "persist": true stores it for those who come later; "sendOnly": a list of the
  ///   participant ids that may get it
  /// \param payload sent along; one that JSON can't carry is left out
  /// \throws PubSubError, or PlatformError where the service has no topic server
  Task<void> publish(std::string topic, std::string message, Dictionary options = {},
                     Dictionary payload = {});

  /// Has `forListener` hear the topic. It is held weakly. Returns when the service has agreed.
  /// \throws PubSubError
  Task<void> subscribe(std::string topic, const Listener& forListener,
                       PubSubSubscribeOptions options = {});
  template <HeldByCallerOnly T>
  [[deprecated("listeners are held weakly, and this one goes at once: name it")]]  //
  Task<void>
  subscribe(std::string topic, std::shared_ptr<T>&& forListener,
            PubSubSubscribeOptions options = {}) {
    return subscribe(std::move(topic), std::as_const(forListener), options);
  }

  /// Has it hear the topic no more. \throws PubSubError
  Task<void> unsubscribe(std::string topic, const Listener& forListener);

  // For the meeting.

  /// The service pushed a message.
  void onMessageReceived(PubSubMessage message);
  /// All listeners and the connection go. The next operation begins afresh.
  void teardown();

private:
  const std::shared_ptr<PubSubRouting> _routing;
  const std::shared_ptr<PubSubFastwsRoute> _fastws;
  const std::shared_ptr<PubSubLegacyRoute> _legacy;
};

}  // namespace kestrova
