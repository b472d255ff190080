#pragma once

#include <memory>
#include <utility>

namespace kestrova {

/// A listener's place: keeps the listener, and takes it away when the handle goes. Movable; any
/// thread may let it go. A call that is under way then goes on.
class [[nodiscard("the listener goes together with the handle")]] ListenerHandle {
public:
  /// For those who offer places.
  struct Place {
    virtual ~Place() = default;
    /// What is listened to keeps the place from now on.
    virtual void stay(std::unique_ptr<Place> self) = 0;
  };

  ListenerHandle() = default;
  explicit ListenerHandle(std::unique_ptr<Place> place) : _place(std::move(place)) {}

  /// Takes the listener away.
  void remove() {
    _place.reset();
  }
  /// Leaves the listener where it is, until what it listens to is gone or all listeners are
  /// removed.
  void detach() {
    if (auto* const place = _place.get()) place->stay(std::move(_place));
  }

private:
  std::unique_ptr<Place> _place;
};

/// A listener that nobody else may be holding: one that can't have put itself into a `shared_ptr`.
template <class Listener>
concept HeldByCallerOnly = !requires(Listener & listener) {
  listener.weak_from_this();
};

}  // namespace kestrova
