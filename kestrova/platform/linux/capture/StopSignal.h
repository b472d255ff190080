#pragma once

#include <chrono>

namespace kestrova {

/// Wakes a thread that waits for time or for a device. Once raised it stays so. Thread-safe.
class StopSignal {
public:
  using TimePoint = std::chrono::steady_clock::time_point;

  /// \throws std::system_error when the process has no file descriptor left
  StopSignal();
  ~StopSignal();
  StopSignal(const StopSignal&) = delete;
  StopSignal& operator=(const StopSignal&) = delete;

  void raise();
  /// Waits until `due` at most; whether the signal was raised.
  bool waitUntil(TimePoint due) const;
  /// Readable once raised, for a `poll` together with others.
  int fd() const { return _fd; }

private:
  int _fd;
};

}  // namespace kestrova
