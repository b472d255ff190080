#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace kestrova {

/// Calls a function at a steady rate, on a thread of its own, from construction until `stop`.
///
/// The schedule does not drift: a late call is followed by the next one at its own time.
/// Thread-safe; the function itself may stop it or let go of it.
class PeriodicThread {
public:
  /// \param tick called with the number of the call, from 0
  PeriodicThread(std::chrono::nanoseconds period, std::function<void(std::int64_t)> tick);
  /// Stops, and waits for a call in progress unless it comes from there.
  ~PeriodicThread();
  PeriodicThread(const PeriodicThread&) = delete;
  PeriodicThread& operator=(const PeriodicThread&) = delete;

  /// Returns at once; `stopped` is called once no further call comes: on that thread, or here when
  /// it has ended before.
  void stop(std::function<void()> stopped = {});

private:
  struct State;
  static void loop(const std::shared_ptr<State>& state);

  std::shared_ptr<State> _state;
  std::thread _thread;
};

}  // namespace kestrova
