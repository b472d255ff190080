#pragma once

#include <kestrova/platform/Await.h>

#include <deque>
#include <memory>
#include <mutex>

namespace kestrova::mediasoup {

/// Lets coroutines through one at a time, in the order they came. Thread-safe.
class Turns : public std::enable_shared_from_this<Turns> {
public:
  /// The right to go on; letting go of it lets the next one in.
  class Turn {
  public:
    explicit Turn(std::shared_ptr<Turns> turns) : _turns(std::move(turns)) {}
    Turn(Turn&&) = default;
    Turn& operator=(Turn&&) = delete;
    ~Turn() {
      if (_turns) _turns->next();
    }

  private:
    std::shared_ptr<Turns> _turns;
  };

  Task<Turn> take() {
    auto self = shared_from_this();
    auto wait = [self](Completion<bool> go) {
      std::unique_lock held(self->_lock);
      if (self->_taken) {
        self->_waiting.push_back(std::move(go));
        return;
      }
      self->_taken = true;
      held.unlock();
      go(true);
    };
    co_await awaitCallback<bool>(wait);
    co_return Turn(self);
  }

private:
  void next() {
    std::unique_lock held(_lock);
    if (_waiting.empty()) {
      _taken = false;
      return;
    }
    auto go = std::move(_waiting.front());
    _waiting.pop_front();
    held.unlock();
    go(true);
  }

  std::mutex _lock;
  bool _taken = false;
  std::deque<Completion<bool>> _waiting;
};

}  // namespace kestrova::mediasoup
