#pragma once

#include <kestrova/platform/Queue.h>
#include <kestrova/platform/Scheduler.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>

namespace kestrova {

/// Time-outs of one length, on one queue: thousands may wait with one timer between them, the
/// oldest one's. For the queue, but for the destructor.
class Deadlines : public std::enable_shared_from_this<Deadlines> {
public:
  using Id = std::uint64_t;

  Deadlines(std::shared_ptr<SerialQueue> queue, std::chrono::milliseconds length);

  /// Runs `work` on the queue when the time has passed, unless it is cancelled first.
  Id add(Work work);
  void cancel(Id id) { _waiting.erase(id); }

private:
  struct Waiting {
    Scheduler::Clock::time_point due;
    Work work;
  };
  void arm();
  void fire();

  const std::shared_ptr<SerialQueue> _queue;
  const std::chrono::milliseconds _length;
  const std::shared_ptr<Scheduler> _scheduler;
  Id _lastId = 0;
  std::map<Id, Waiting> _waiting;  // in the order in which they are due
  std::unique_ptr<Timer> _timer;
};

}  // namespace kestrova
