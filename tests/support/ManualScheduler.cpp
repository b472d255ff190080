#include "ManualScheduler.h"

#include <algorithm>

namespace kestrova::test {

struct ManualScheduler::Entry {
  Clock::time_point due;
  Work work;
  bool cancelled = false;
};

namespace {

struct Handle final : Timer {
  explicit Handle(std::function<void()> c) : onCancel(std::move(c)) {}
  ~Handle() override { onCancel(); }
  void cancel() override { onCancel(); }
  std::function<void()> onCancel;
};

}  // namespace

ManualScheduler::ManualScheduler() : _now(Clock::time_point{} + std::chrono::hours(1)) {}

Scheduler::Clock::time_point ManualScheduler::now() const {
  std::scoped_lock held(_lock);
  return _now;
}

std::int64_t ManualScheduler::wallClockMs() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(now().time_since_epoch()).count();
}

std::shared_ptr<ManualScheduler::Entry> ManualScheduler::add(std::chrono::milliseconds delay,
                                                             Work work) {
  std::scoped_lock held(_lock);
  auto entry = std::make_shared<Entry>(Entry{_now + delay, std::move(work)});
  auto place = std::find_if(_entries.begin(), _entries.end(),
                            [&](const auto& other) { return other->due > entry->due; });
  _entries.insert(place, entry);
  return entry;
}

std::unique_ptr<Timer> ManualScheduler::after(std::chrono::milliseconds delay, Work work) {
  auto entry = add(delay, std::move(work));
  return std::make_unique<Handle>([this, entry] {
    std::scoped_lock held(_lock);
    entry->cancelled = true;
    _entries.remove(entry);
  });
}

void ManualScheduler::detachedAfter(std::chrono::milliseconds delay, Work work) {
  add(delay, std::move(work));
}

bool ManualScheduler::runNext(Clock::time_point limit) {
  std::shared_ptr<Entry> entry;
  {
    std::scoped_lock held(_lock);
    if (_entries.empty() || _entries.front()->due > limit) {
      _now = std::max(_now, limit);
      return false;
    }
    entry = _entries.front();
    _entries.pop_front();
    _now = std::max(_now, entry->due);
  }
  entry->work();
  return true;
}

std::size_t ManualScheduler::pending() const {
  std::scoped_lock held(_lock);
  return _entries.size();
}

}  // namespace kestrova::test
