#pragma once

#include <algorithm>
#include <chrono>

namespace kestrova {

/// Says when the next 10 ms of received audio are due while no sink asks for them.
class PlayoutClock {
public:
  using Clock = std::chrono::steady_clock;

  Clock::time_point due() const { return _due; }
  /// A sink took a block: it keeps the time, unless it falls silent (suspended, a hanging server).
  void heardFromSink(Clock::time_point now) { _due = now + kLongestPause; }
  /// The sink is gone: time goes on from here.
  void lostSink(Clock::time_point now) { _due = std::min(_due, now); }
  /// 10 ms were taken.
  void advance(Clock::time_point now) {
    _due += std::chrono::milliseconds(10);
    if (now - _due > kLongestLag) _due = now;
  }

private:
  /// Sinks take blocks of some 10 ms, Bluetooth ones of some 50.
  static constexpr auto kLongestPause = std::chrono::milliseconds(250);
  /// A pause longer than this (a suspended machine) is not caught up with: it would come as a
  /// burst.
  static constexpr auto kLongestLag = std::chrono::milliseconds(200);
  Clock::time_point _due = Clock::now();
};

}  // namespace kestrova
