#pragma once

#include <kestrova/platform/Scheduler.h>

#include <list>
#include <memory>
#include <mutex>

namespace kestrova::test {

/// A clock that stands still until a test moves it.
class ManualScheduler final : public Scheduler {
public:
  ManualScheduler();
  Clock::time_point now() const override;
  std::int64_t wallClockMs() const override;
  std::unique_ptr<Timer> after(std::chrono::milliseconds delay, Work work) override;
  void detachedAfter(std::chrono::milliseconds delay, Work work) override;

  /// Takes the next piece of work that is due at or before `limit` and moves the clock to it; false
  /// when there is none (the clock is then at `limit`).
  bool runNext(Clock::time_point limit);
  std::size_t pending() const;

private:
  struct Entry;
  std::shared_ptr<Entry> add(std::chrono::milliseconds delay, Work work);

  mutable std::mutex _lock;
  Clock::time_point _now;
  std::list<std::shared_ptr<Entry>> _entries;
};

}  // namespace kestrova::test
