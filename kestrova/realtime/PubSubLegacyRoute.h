#pragma once

#include <kestrova/realtime/PubSubRouting.h>

#include <memory>
#include <string>

namespace kestrova {

/// Topic messages as requests to the meeting's signalling server, for a service without a topic
/// server. It has no options, no batches and no word of gaps.
class PubSubLegacyRoute : public std::enable_shared_from_this<PubSubLegacyRoute> {
public:
  using Listener = std::shared_ptr<PubSubMessageListener>;

  explicit PubSubLegacyRoute(std::shared_ptr<PubSubRouting> routing)
      : _routing(std::move(routing)) {}

  /// \throws PlatformError
  Task<void> publish(std::string topic, std::string message, Dictionary options,
                     Dictionary payload);
  /// A refusal is only traced. \throws PubSubError alreadySubscribed
  Task<void> subscribe(std::string topic, Listener listener);
  /// A refusal is only traced. \throws PubSubError noSubscribedListener
  Task<void> unsubscribe(std::string topic, Listener listener);
  /// The service pushed a message.
  void onMessageReceived(PubSubMessage message);

private:
  /// False when the listener listens already.
  bool subscribed(const std::string& topic, const Listener& listener, const Dictionary& response);

  const std::shared_ptr<PubSubRouting> _routing;
};

}  // namespace kestrova
