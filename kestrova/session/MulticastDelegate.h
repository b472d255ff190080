#pragma once

#include <kestrova/platform/Escaped.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <vector>

namespace kestrova {

class CharacterEventListener;
class MeetingEventListener;
class ParticipantEventListener;

/// A set of listeners, each held weakly: membership never keeps a listener alive, and one that dies
/// is simply no longer there. Thread-safe.
template <class Listener>
class MulticastDelegate {
public:
  /// Adding a member again changes nothing.
  void add(const std::shared_ptr<Listener>& listener) {
    if (!listener) return;
    std::scoped_lock held(_lock);
    std::erase_if(_members, [](const Member& member) { return member.alive.expired(); });
    const bool isKnown = std::any_of(_members.begin(), _members.end(),
                                     [&](const Member& member) { return member.is(listener); });
    if (!isKnown) _members.push_back({listener, listener.get()});
  }

  void remove(const std::shared_ptr<Listener>& listener) {
    std::scoped_lock held(_lock);
    std::erase_if(_members, [&](const Member& member) { return member.is(listener); });
  }

  void removeAll() {
    std::scoped_lock held(_lock);
    _members.clear();
  }

  /// Calls `event` with each listener on the calling thread, with no lock held: a listener may add
  /// or remove listeners, which takes effect with the next event. One that throws is reported, and
  /// the others hear the event all the same.
  template <class Event>
  void invoke(Event&& event) const {
    for (const auto& listener : snapshot()) {
      try {
        event(*listener);
      } catch (...) {
        reportEscaped("a listener");
      }
    }
  }

private:
  struct Member {
    std::weak_ptr<Listener> alive;
    const Listener* address;

    // Without locking it: whoever locks last destroys the listener, which is not for a lock.
    bool is(const std::shared_ptr<Listener>& listener) const {
      return address == listener.get() && !alive.owner_before(listener) &&
             !listener.owner_before(alive);
    }
  };

  std::vector<std::shared_ptr<Listener>> snapshot() const {
    std::vector<std::shared_ptr<Listener>> listeners;
    std::scoped_lock held(_lock);
    listeners.reserve(_members.size());
    for (const auto& member : _members)
      if (auto listener = member.alive.lock()) listeners.push_back(std::move(listener));
    return listeners;
  }

  mutable std::mutex _lock;
  std::vector<Member> _members;
};

using MeetingMulticastDelegate = MulticastDelegate<MeetingEventListener>;
using ParticipantMulticastDelegate = MulticastDelegate<ParticipantEventListener>;
using CharacterMulticasteDelegate = MulticastDelegate<CharacterEventListener>;

}  // namespace kestrova
