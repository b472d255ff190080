#pragma once

#include <chrono>

namespace kestrova {

/// A schedule that does not drift: a late turn is followed by the next one at its own time.
class Pacer {
public:
  using Clock = std::chrono::steady_clock;

  explicit Pacer(std::chrono::nanoseconds period)
      : _period(std::chrono::duration_cast<Clock::duration>(period)), _due(Clock::now()) {}
  /// When the turn is due; at once for the first.
  Clock::time_point due() const { return _due; }
  /// To the next turn.
  void advance() {
    _due += _period;
    const auto now = Clock::now();
    if (now - _due > kLongestLag) _due = now;
  }

private:
  /// Being later than this (a suspended machine) is forgiven instead of caught up with in a burst.
  static constexpr auto kLongestLag = std::chrono::milliseconds(200);

  Clock::duration _period;
  Clock::time_point _due;
};

}  // namespace kestrova
