#include <kestrova/realtime/PubSubSubscribers.h>

#include <utility>

namespace kestrova {

std::shared_ptr<PubSubMulticastDelegate> PubSubSubscribers::find(std::string_view topic) const {
  std::scoped_lock held(_lock);
  const auto found = _subscribers.find(topic);
  return found == _subscribers.end() ? nullptr : found->second;
}

bool PubSubSubscribers::contains(std::string_view topic, const Listener& listener) const {
  const auto delegate = find(topic);
  return delegate && delegate->contains(listener);
}

bool PubSubSubscribers::add(const std::string& topic, const Listener& listener,
                            const std::string& requestId) {
  std::scoped_lock held(_lock);
  auto& delegate = _subscribers[topic];
  if (!delegate) delegate = std::make_shared<PubSubMulticastDelegate>();
  if (delegate->contains(listener)) return false;
  delegate->add(listener);
  if (!requestId.empty()) _fastwsByRequestId[requestId] = {topic, listener, listener.get()};
  return true;
}

PubSubSubscribers::Removal PubSubSubscribers::remove(std::string_view topic,
                                                     const Listener& listener) {
  Removal removal;
  std::scoped_lock held(_lock);
  const auto found = _subscribers.find(topic);
  if (found == _subscribers.end()) return removal;
  removal.topicFound = true;
  found->second->remove(listener);
  std::erase_if(_fastwsByRequestId, [&](const auto& entry) {
    const auto& subscription = entry.second;
    const bool isTheirs = subscription.topic == topic && subscription.address == listener.get() &&
                          !subscription.listener.owner_before(listener) &&
                          !listener.owner_before(subscription.listener);
    if (isTheirs) removal.requestIds.push_back(entry.first);
    return isTheirs;
  });
  removal.lastGone = found->second->isEmpty();
  if (removal.lastGone) _subscribers.erase(found);
  return removal;
}

std::vector<std::string> PubSubSubscribers::takeAbandoned() {
  std::vector<std::string> requestIds;
  std::scoped_lock held(_lock);
  std::erase_if(_fastwsByRequestId, [&](const auto& entry) {
    if (entry.second.listener.expired()) requestIds.push_back(entry.first);
    return entry.second.listener.expired();
  });
  return requestIds;
}

void PubSubSubscribers::removeFailed(const std::string& requestId) {
  Listener listener;  // goes outside the lock
  std::scoped_lock held(_lock);
  const auto subscription = _fastwsByRequestId.extract(requestId);
  if (!subscription) return;
  const auto found = _subscribers.find(subscription.mapped().topic);
  if (found == _subscribers.end()) return;
  listener = subscription.mapped().listener.lock();
  if (listener) found->second->remove(listener);
  if (found->second->isEmpty()) _subscribers.erase(found);
}

PubSubSubscribers::Listener PubSubSubscribers::listenerOf(std::string_view requestId) const {
  std::scoped_lock held(_lock);
  const auto found = _fastwsByRequestId.find(requestId);
  return found == _fastwsByRequestId.end() ? nullptr : found->second.listener.lock();
}

std::uint64_t PubSubSubscribers::clearings() const {
  std::scoped_lock held(_lock);
  return _clearings;
}

void PubSubSubscribers::clear() {
  Topics topics;
  {
    std::scoped_lock held(_lock);
    topics.swap(_subscribers);
    ++_clearings;
    _fastwsByRequestId.clear();
  }
  for (const auto& [topic, delegate] : topics) delegate->removeAll();
}

}  // namespace kestrova
