#pragma once

#include <kestrova/model/ListenerHandle.h>
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
  void add(const std::shared_ptr<Listener>& listener) { _members->add(listener); }
  void remove(const std::shared_ptr<Listener>& listener) { _members->remove(listener); }
  void removeAll() { _members->removeAll(); }
  bool contains(const std::shared_ptr<Listener>& listener) const {
    return _members->contains(listener);
  }
  /// Whether none of them is alive.
  bool isEmpty() const { return _members->isEmpty(); }

  /// Adds a listener that its place keeps.
  ListenerHandle keep(std::shared_ptr<Listener> listener) {
    if (!listener) return {};
    const int member = _members->add(listener, 1);
    return ListenerHandle(std::make_unique<Place>(_members, member, std::move(listener)));
  }

  /// Lets go of the listeners whose handles were detached: nothing more is to be heard.
  void releaseKept() { _members->releaseKept(); }

  /// Calls `event` with each listener on the calling thread, with no lock held: a listener may add
  /// or remove listeners, which takes effect with the next event. One that throws is reported, and
  /// the others hear the event all the same.
  template <class Event>
  void invoke(Event&& event) const {
    for (const auto& listener : _members->snapshot()) {
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
    int number;
    bool isAdded;  // by itself
    int places;    // and by how many handles

    // Without locking it: whoever locks last destroys the listener, which is not for a lock.
    bool is(const std::shared_ptr<Listener>& listener) const {
      return address == listener.get() && !alive.owner_before(listener) &&
             !listener.owner_before(alive);
    }
  };
  using Places = std::vector<std::unique_ptr<ListenerHandle::Place>>;

  class Members {
  public:
    /// \returns the member's number
    int add(const std::shared_ptr<Listener>& listener, int places = 0) {
      if (!listener) return 0;
      std::scoped_lock held(_lock);
      std::erase_if(_list, [](const Member& member) { return member.alive.expired(); });
      auto known = std::find_if(_list.begin(), _list.end(),
                                [&](const Member& member) { return member.is(listener); });
      if (known == _list.end())
        known = _list.insert(known, {listener, listener.get(), ++_members, false, 0});
      known->isAdded |= places == 0;
      known->places += places;
      return known->number;
    }

    /// A handle goes; another one may still keep the listener here.
    void leavePlace(int member) {
      std::scoped_lock held(_lock);
      std::erase_if(_list, [&](Member& each) {
        return each.number == member && --each.places <= 0 && !each.isAdded;
      });
    }

    void remove(const std::shared_ptr<Listener>& listener) {
      std::scoped_lock held(_lock);
      std::erase_if(_list, [&](const Member& member) { return member.is(listener); });
    }

    bool contains(const std::shared_ptr<Listener>& listener) const {
      std::scoped_lock held(_lock);
      return std::any_of(_list.begin(), _list.end(),
                         [&](const Member& member) { return member.is(listener); });
    }

    bool isEmpty() const {
      std::scoped_lock held(_lock);
      return std::all_of(_list.begin(), _list.end(),
                         [](const Member& member) { return member.alive.expired(); });
    }

    void removeAll() {
      Places kept;  // goes outside the lock, as the listeners in it do
      std::scoped_lock held(_lock);
      _list.clear();
      kept.swap(_kept);
    }

    void releaseKept() {
      Places kept;  // goes outside the lock
      std::scoped_lock held(_lock);
      kept.swap(_kept);
      _isOver = true;
    }

    /// Which goes at once where nothing more is to be heard.
    void keep(std::unique_ptr<ListenerHandle::Place> place) {
      std::scoped_lock held(_lock);
      if (!_isOver) _kept.push_back(std::move(place));
    }

    std::vector<std::shared_ptr<Listener>> snapshot() const {
      std::vector<std::shared_ptr<Listener>> listeners;
      std::scoped_lock held(_lock);
      listeners.reserve(_list.size());
      for (const auto& member : _list)
        if (auto listener = member.alive.lock()) listeners.push_back(std::move(listener));
      return listeners;
    }

  private:
    mutable std::mutex _lock;
    std::vector<Member> _list;
    int _members = 0;  // so far
    Places _kept;
    bool _isOver = false;
  };

  class Place final : public ListenerHandle::Place {
  public:
    Place(const std::shared_ptr<Members>& members, int member, std::shared_ptr<Listener> listener)
        : _members(members), _member(member), _listener(std::move(listener)) {}
    ~Place() override {
      if (const auto members = _members.lock()) members->leavePlace(_member);
    }
    void stay(std::unique_ptr<ListenerHandle::Place> self) override {
      if (const auto members = _members.lock()) members->keep(std::move(self));
    }

  private:
    const std::weak_ptr<Members> _members;
    const int _member;
    const std::shared_ptr<Listener> _listener;
  };

  const std::shared_ptr<Members> _members = std::make_shared<Members>();
};

using MeetingMulticastDelegate = MulticastDelegate<MeetingEventListener>;
using ParticipantMulticastDelegate = MulticastDelegate<ParticipantEventListener>;
using CharacterMulticasteDelegate = MulticastDelegate<CharacterEventListener>;

}  // namespace kestrova
