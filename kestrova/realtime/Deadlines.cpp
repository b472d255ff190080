#include <kestrova/platform/Platform.h>
#include <kestrova/realtime/Deadlines.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace kestrova {

using std::chrono::milliseconds;

Deadlines::Deadlines(std::shared_ptr<SerialQueue> queue, milliseconds length)
    : _queue(std::move(queue)), _length(length), _scheduler(Platform::current()->scheduler) {}

Deadlines::Id Deadlines::add(Work work) {
  const auto id = ++_lastId;
  _waiting.emplace(id, Waiting{_scheduler->now() + _length, std::move(work)});
  if (!_timer) arm();
  return id;
}

void Deadlines::arm() {
  const auto left = _waiting.begin()->second.due - _scheduler->now();
  const auto delay = std::max(std::chrono::ceil<milliseconds>(left), milliseconds(0));
  _timer = _scheduler->after(delay, [weak = weak_from_this(), queue = _queue] {
    queue->async([weak] {
      if (const auto self = weak.lock()) self->fire();
    });
  });
}

/// Of what was cancelled meanwhile nothing is left, so it may be too early for the next.
void Deadlines::fire() {
  _timer.reset();
  const auto now = _scheduler->now();
  std::vector<Work> due;
  while (!_waiting.empty() && _waiting.begin()->second.due <= now) {
    due.push_back(std::move(_waiting.begin()->second.work));
    _waiting.erase(_waiting.begin());
  }
  if (!_waiting.empty()) arm();
  for (auto& work : due) work();
}

}  // namespace kestrova
