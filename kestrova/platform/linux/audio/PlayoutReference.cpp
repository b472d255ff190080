#include <kestrova/platform/linux/audio/PlayoutReference.h>

#include <algorithm>
#include <iterator>

namespace kestrova {

// Never destroyed: playout may still run while the process exits.
PlayoutReference& PlayoutReference::shared() {
  static auto& instance = *new PlayoutReference;
  return instance;
}

void PlayoutReference::add(const std::shared_ptr<FarEndListener>& listener) {
  auto listeners = std::make_shared<Listeners>();
  listeners->push_back(listener);
  std::scoped_lock held(_lock);
  std::copy_if(_listeners->begin(), _listeners->end(), std::back_inserter(*listeners),
               [](const auto& other) { return !other.expired(); });
  _listeners = std::move(listeners);
}

void PlayoutReference::publish(const AudioData& data, std::chrono::milliseconds delay) {
  std::shared_ptr<const Listeners> listeners;
  {
    std::scoped_lock held(_lock);
    listeners = _listeners;
  }
  for (const auto& weak : *listeners)
    if (const auto listener = weak.lock()) listener->onFarEnd(data, delay);
}

}  // namespace kestrova
