#pragma once

#include <kestrova/platform/Task.h>
#include <kestrova/platform/Work.h>

#include <chrono>
#include <cstdint>
#include <memory>

namespace kestrova {

/// A pending piece of timed work. Letting go of it cancels the work.
class Timer {
public:
  virtual ~Timer() = default;
  /// Afterwards the work does not start. Work that is running already goes on.
  virtual void cancel() = 0;
};

/// The only source of time. Tests install one whose clock they move by hand.
class Scheduler {
public:
  using Clock = std::chrono::steady_clock;
  virtual ~Scheduler() = default;

  virtual Clock::time_point now() const = 0;
  /// Milliseconds since 1970, for time stamps that leave the process.
  virtual std::int64_t wallClockMs() const = 0;
  /// Runs `work` on a background thread once `delay` has passed, unless the timer is cancelled or
  /// released first. The work must be short: hop to a queue for anything more.
  [[nodiscard]] virtual std::unique_ptr<Timer> after(std::chrono::milliseconds delay,
                                                     Work work) = 0;
  /// The same without a handle: the work runs in any case.
  virtual void detachedAfter(std::chrono::milliseconds delay, Work work) = 0;
};

/// Suspends the awaiting coroutine; it resumes on its own executor.
Task<void> sleepFor(std::chrono::milliseconds delay);

}  // namespace kestrova
