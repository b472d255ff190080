#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>

namespace kestrova::bench {

using Clock = std::chrono::steady_clock;

inline double ms(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double, std::milli>(to - from).count();
}

/// When each thing first happened since the last `restart`.
class Times {
public:
  void restart() {
    std::scoped_lock held(_lock);
    _first.clear();
  }
  void mark(const std::string& what) {
    std::scoped_lock held(_lock);
    _first.emplace(what, Clock::now());
    _changed.notify_all();
  }
  Clock::time_point await(const std::string& what) {
    std::unique_lock held(_lock);
    const auto there = [&] { return _first.contains(what); };
    if (_changed.wait_for(held, std::chrono::seconds(30), there)) return _first.at(what);
    std::fprintf(stderr, "no %s within 30 s\n", what.c_str());
    std::exit(1);
  }

private:
  std::mutex _lock;
  std::condition_variable _changed;
  std::map<std::string, Clock::time_point> _first;
};

}  // namespace kestrova::bench
