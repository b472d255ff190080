#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <vector>

namespace kestrova {

/// Weakly held sinks. Thread-safe unless stated; sinks are called with no lock held.
template <class Sink>
class SinkList {
public:
  void add(const std::shared_ptr<Sink>& sink) {
    if (!sink) return;
    std::scoped_lock held(_lock);
    dropDead();
    const auto same = [&](const std::weak_ptr<Sink>& other) { return other.lock() == sink; };
    if (std::none_of(_sinks.begin(), _sinks.end(), same)) _sinks.push_back(sink);
  }

  void remove(const std::shared_ptr<Sink>& sink) {
    std::scoped_lock held(_lock);
    std::erase_if(_sinks, [&](const std::weak_ptr<Sink>& other) {
      auto live = other.lock();
      return !live || live == sink;
    });
  }

  bool empty() {
    std::scoped_lock held(_lock);
    dropDead();
    return _sinks.empty();
  }

  /// Calls `call` with each live sink in the order they were added. One thread at a time.
  template <class Call>
  void forEach(const Call& call) {
    {
      std::scoped_lock held(_lock);
      for (const auto& sink : _sinks)
        if (auto live = sink.lock()) _live.push_back(std::move(live));
    }
    for (const auto& sink : _live) call(*sink);
    _live.clear();
  }

private:
  void dropDead() {
    std::erase_if(_sinks, [](const std::weak_ptr<Sink>& sink) { return sink.expired(); });
  }

  std::mutex _lock;
  std::vector<std::weak_ptr<Sink>> _sinks;   // under _lock
  std::vector<std::shared_ptr<Sink>> _live;  // the delivering thread; kept for its memory
};

}  // namespace kestrova
