#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace kestrova {

/// Weakly held sinks. Thread-safe unless stated; sinks are called, and let go of, with no lock
/// held.
template <class Sink>
class SinkList {
public:
  void add(const std::shared_ptr<Sink>& sink) {
    if (!sink) return;
    std::scoped_lock held(_lock);
    dropDead();
    const auto same = [&](const Entry& entry) { return entry.address == sink.get(); };
    if (std::none_of(_sinks.begin(), _sinks.end(), same)) _sinks.push_back({sink.get(), sink});
  }

  void remove(const std::shared_ptr<Sink>& sink) {
    std::scoped_lock held(_lock);
    dropDead();
    std::erase_if(_sinks, [&](const Entry& entry) { return entry.address == sink.get(); });
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
      for (const auto& entry : _sinks)
        if (auto live = entry.sink.lock()) _live.push_back(std::move(live));
    }
    for (const auto& sink : _live) call(*sink);
    _live.clear();
  }

private:
  /// Compared by address: locking the pointer could make us the last holder, under our lock.
  struct Entry {
    Sink* address;
    std::weak_ptr<Sink> sink;
  };
  void dropDead() {
    std::erase_if(_sinks, [](const Entry& entry) { return entry.sink.expired(); });
  }

  std::mutex _lock;
  std::vector<Entry> _sinks;                 // under _lock
  std::vector<std::shared_ptr<Sink>> _live;  // the delivering thread; kept for its memory
};

}  // namespace kestrova
