#pragma once

#include <kestrova/platform/Await.h>

#include <deque>
#include <memory>
#include <mutex>
#include <utility>

namespace kestrova {

/// Lets one coroutine at a time through a stretch of code that awaits; the others wait in order,
/// without a thread. Thread-safe.
class AsyncLock {
public:
  /// Holds the lock for as long as it lives.
  class Guard {
  public:
    explicit Guard(AsyncLock* lock) : _lock(lock) {}
    Guard(Guard&& other) noexcept : _lock(std::exchange(other._lock, nullptr)) {}
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
    Guard& operator=(Guard&&) = delete;
    ~Guard() {
      if (_lock) _lock->release();
    }

  private:
    AsyncLock* _lock;
  };

  /// The lock must outlive the guard.
  Task<Guard> acquire() {
    auto enqueue = [this](Completion<bool> turn) {
      {
        std::scoped_lock held(_mutex);
        if (std::exchange(_taken, true)) {
          _waiting.push_back(turn);
          return;
        }
      }
      turn(true);
    };
    co_await awaitCallback<bool>(std::move(enqueue));
    co_return Guard(this);
  }

private:
  void release() {
    std::unique_lock held(_mutex);
    if (_waiting.empty()) {
      _taken = false;
      return;
    }
    auto next = std::move(_waiting.front());
    _waiting.pop_front();
    held.unlock();
    next(true);
  }

  std::mutex _mutex;
  bool _taken = false;
  std::deque<Completion<bool>> _waiting;
};

}  // namespace kestrova
