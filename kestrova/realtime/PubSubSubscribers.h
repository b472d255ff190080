#pragma once

#include <kestrova/model/MulticastDelegate.h>
#include <kestrova/realtime/PubSubMessageListener.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova {

using PubSubMulticastDelegate = MulticastDelegate<PubSubMessageListener>;

/// Who listens to which topic. Thread-safe; its lock is a leaf.
class PubSubSubscribers {
public:
  using Listener = std::shared_ptr<PubSubMessageListener>;

  /// What became of a listener that was to be removed.
  struct Removal {
    bool topicFound = false;
    bool lastGone = false;
    /// Its subscriptions at the topic server.
    std::vector<std::string> requestIds;
  };

  bool has(std::string_view topic) const { return find(topic) != nullptr; }
  bool contains(std::string_view topic, const Listener& listener) const;
  std::shared_ptr<PubSubMulticastDelegate> find(std::string_view topic) const;
  /// Adds a listener. \param requestId of its subscription at the topic server, where there is one
  /// \returns false when it listens to the topic already
  bool add(const std::string& topic, const Listener& listener, const std::string& requestId = {});
  Removal remove(std::string_view topic, const Listener& listener);
  /// Takes the subscriptions away whose listeners have gone without a word; gives their ids.
  std::vector<std::string> takeAbandoned();
  /// Takes a subscription that failed away with its listener, unless both are gone already.
  void removeFailed(const std::string& requestId);
  /// Whose subscription it is; nothing when the listener or the subscription has gone.
  Listener listenerOf(std::string_view requestId) const;
  /// Nobody hears anything any more, nor what is on its way.
  void clear();
  /// How often that has been: what was asked for before is not for after.
  std::uint64_t clearings() const;

private:
  struct FastwsSubscription {
    std::string topic;
    std::weak_ptr<PubSubMessageListener> listener;
    const PubSubMessageListener* address;
  };
  using Topics = std::map<std::string, std::shared_ptr<PubSubMulticastDelegate>, std::less<>>;

  mutable std::mutex _lock;
  Topics _subscribers;
  std::uint64_t _clearings = 0;
  std::map<std::string, FastwsSubscription, std::less<>> _fastwsByRequestId;
};

}  // namespace kestrova
