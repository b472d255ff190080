#pragma once

#include <kestrova/realtime/PubSubMessage.h>
#include <kestrova/realtime/PubSubTypes.h>

#include <functional>
#include <memory>
#include <vector>

namespace kestrova {

/// What a subscriber of a topic hears, on the main queue. Every operation has an empty default.
class PubSubMessageListener {
public:
  virtual ~PubSubMessageListener() = default;

  /// Each new message, in order.
  virtual void onMessageReceived(const PubSubMessage& /*message*/) {}
  /// Stored messages from before the subscription, oldest first, in one call or several; new ones
  /// may come in between. Only the listener that subscribed hears it.
  virtual void onOldMessagesReceived(const std::vector<PubSubMessage>& /*messages*/,
                                     const PubSubHistoryInfo& /*info*/) {}
  /// The new messages as they arrived together; each comes by itself, too.
  virtual void onBatchReceived(const std::vector<PubSubMessage>& /*messages*/) {}
  /// Messages are missing here: the service or this process dropped them. Told before the next one.
  virtual void onMessageDrop(const PubSubMessageDropInfo& /*info*/) {}
  /// The connection to the topic server was lost, and this subscription stands again: what was said
  /// meanwhile is missing here, however much that is. Whoever needs it subscribes anew, with
  /// history.
  virtual void onReconnected() {}
};

/// The same as functions. The listener that `makeListener` makes of them is the program's to keep:
/// topics hold their listeners weakly.
struct PubSubMessageEvents {
  std::function<void(const PubSubMessage&)> onMessageReceived = {};
  std::function<void(const std::vector<PubSubMessage>&, const PubSubHistoryInfo&)>
      onOldMessagesReceived = {};
  std::function<void(const std::vector<PubSubMessage>&)> onBatchReceived = {};
  std::function<void(const PubSubMessageDropInfo&)> onMessageDrop = {};
  std::function<void()> onReconnected = {};
};

[[nodiscard("it is held weakly: keep it")]] std::shared_ptr<PubSubMessageListener> makeListener(
    PubSubMessageEvents events);

}  // namespace kestrova
