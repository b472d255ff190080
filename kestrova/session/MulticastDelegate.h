#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <vector>

namespace kestrova {

/// A set of listeners, each held weakly: membership never keeps a listener alive, and one that dies
/// is simply no longer there. Thread-safe.
template <class Listener>
class MulticastDelegate {
public:
  /// Adding a member again changes nothing.
  void add(const std::shared_ptr<Listener>& listener) {
    if (!listener) return;
    std::scoped_lock held(_lock);
    std::erase_if(_members, [](const auto& member) { return member.expired(); });
    const bool known = std::any_of(_members.begin(), _members.end(),
                                   [&](const auto& member) { return member.lock() == listener; });
    if (!known) _members.push_back(listener);
  }

  void remove(const std::shared_ptr<Listener>& listener) {
    std::scoped_lock held(_lock);
    std::erase_if(_members, [&](const auto& member) { return member.lock() == listener; });
  }

  void removeAll() {
    std::scoped_lock held(_lock);
    _members.clear();
  }

  /// Calls `action` with each listener on the calling thread, with no lock held: a listener may add
  /// or remove listeners, which takes effect with the next event.
  template <class Action>
  void invoke(Action&& action) const {
    for (const auto& listener : snapshot()) action(*listener);
  }

private:
  std::vector<std::shared_ptr<Listener>> snapshot() const {
    std::vector<std::shared_ptr<Listener>> listeners;
    std::scoped_lock held(_lock);
    listeners.reserve(_members.size());
    for (const auto& member : _members)
      if (auto listener = member.lock()) listeners.push_back(std::move(listener));
    return listeners;
  }

  mutable std::mutex _lock;
  std::vector<std::weak_ptr<Listener>> _members;
};

}  // namespace kestrova
