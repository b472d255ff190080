#include "Load.h"

#include "Process.h"
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

namespace kestrova::bench {
namespace {

using Clock = std::chrono::steady_clock;
constexpr int kOnTheWay = 256;
constexpr auto kPatience = std::chrono::seconds(60);

/// Publishes on its own as soon as there is room, from whatever thread made it.
class Flood {
public:
  Flood(Crowd& crowd, double seconds) : _crowd(crowd), _seconds(seconds) {
    _crowd.listen({.acknowledged = [this] { note(1, 0); },
                   .delivered = [this](std::uint32_t) { note(0, 1); }});
  }

  Flow run() {
    const double cpu = cpuSeconds();
    _start = Clock::now();
    note(0, 0);
    std::unique_lock held(_lock);
    if (!_changed.wait_for(held, kPatience, [this] { return _ended && isIdle(); })) {
      std::fprintf(stderr, "messages were lost: %ld sent, %ld acknowledged, %ld delivered\n", _sent,
                   _acknowledged, _delivered);
      std::exit(1);
    }
    const std::chrono::duration<double> took = Clock::now() - _start;
    const auto count = static_cast<double>(_sent);
    return {count / took.count(), (cpuSeconds() - cpu) * 1e6 / count};
  }

private:
  bool isIdle() const { return _acknowledged == _sent && _delivered == _sent * kListeners; }
  bool hasRoom() const {
    return !_ended && _sent - _acknowledged < kOnTheWay &&
           _sent * kListeners - _delivered < kOnTheWay * kListeners;
  }
  void note(long acknowledged, long delivered) {
    std::unique_lock held(_lock);
    _acknowledged += acknowledged;
    _delivered += delivered;
    if (hasRoom() && std::chrono::duration<double>(Clock::now() - _start).count() > _seconds)
      _ended = true;
    std::vector<std::uint32_t> numbers;
    while (hasRoom()) numbers.push_back(static_cast<std::uint32_t>(_sent++));
    if (_ended && isIdle()) _changed.notify_all();
    held.unlock();
    for (const auto number : numbers) _crowd.publish(number);
  }

  Crowd& _crowd;
  const double _seconds;
  Clock::time_point _start;
  std::mutex _lock;  // for the fields below
  std::condition_variable _changed;
  long _sent = 0;
  long _acknowledged = 0;
  long _delivered = 0;
  bool _ended = false;
};

}  // namespace

Flow flowOf(Crowd& crowd, double seconds) {
  Flood flood(crowd, seconds);
  const auto flow = flood.run();
  crowd.listen({});
  return flow;
}

Delays delaysOf(Crowd& crowd, double seconds) {
  constexpr int perSecond = 1000;
  const auto count = static_cast<std::uint32_t>(perSecond * seconds);
  std::vector<Clock::time_point> sent(count);
  std::mutex lock;
  std::condition_variable changed;
  std::vector<double> delays;
  std::uint32_t acknowledged = 0;
  const auto isComplete = [&] {
    return acknowledged == count && delays.size() == count * kListeners;
  };
  crowd.listen({.acknowledged =
                    [&] {
                      std::scoped_lock held(lock);
                      ++acknowledged;
                      if (isComplete()) changed.notify_all();
                    },
                .delivered =
                    [&](std::uint32_t number) {
                      const auto now = Clock::now();
                      std::scoped_lock held(lock);
                      const std::chrono::duration<double, std::milli> delay = now - sent[number];
                      delays.push_back(delay.count());
                      if (isComplete()) changed.notify_all();
                    }});
  const auto start = Clock::now();
  for (std::uint32_t i = 0; i < count; ++i) {
    std::this_thread::sleep_until(start + i * std::chrono::microseconds(1'000'000 / perSecond));
    {
      std::scoped_lock held(lock);
      sent[i] = Clock::now();
    }
    crowd.publish(i);
  }
  std::unique_lock held(lock);
  if (!changed.wait_for(held, kPatience, isComplete)) {
    std::fprintf(stderr, "messages were lost: %zu of %u delivered\n", delays.size(),
                 count * kListeners);
    std::exit(1);
  }
  held.unlock();
  crowd.listen({});
  std::sort(delays.begin(), delays.end());
  return {delays[delays.size() / 2], delays[delays.size() * 99 / 100]};
}

}  // namespace kestrova::bench
