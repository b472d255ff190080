#pragma once

#include <chrono>
#include <optional>

namespace kestrova::broadcast {

/// What tells the program to end: SIGINT, SIGTERM, and with a lifeline the end of standard input,
/// which is the end of whoever started it.
class Ending {
public:
  using TimePoint = std::chrono::steady_clock::time_point;
  /// Leaves whatever is being done.
  struct Reached {};

  /// Takes over the signals of the process.
  explicit Ending(bool hasLifeline);
  ~Ending();
  Ending(const Ending&) = delete;
  Ending& operator=(const Ending&) = delete;

  /// Waits until `handle` is ready for `events` (those of poll), or until `due`, or both are not
  /// given and it waits for the end. \returns what `handle` is ready for, 0 when time is up
  /// \throws Reached
  short wait(int handle, short events, std::optional<TimePoint> due) const;
  /// \throws Reached
  void waitUntil(TimePoint due) const { wait(-1, 0, due); }

private:
  int _signals;
  int _lifeline;
};

}  // namespace kestrova::broadcast
