#include <kestrova/platform/linux/socketio/SocketAcks.h>

#include <algorithm>

namespace kestrova {

namespace {

// Keeps "never" from overflowing a time point.
constexpr std::chrono::milliseconds longestTimeout = std::chrono::hours(24 * 365);

}  // namespace

SocketAcks::SocketAcks(std::shared_ptr<Queue> queue, std::shared_ptr<Scheduler> scheduler)
    : _queue(std::move(queue)), _scheduler(std::move(scheduler)) {}

std::uint64_t SocketAcks::add(std::chrono::milliseconds timeout, Handler handler) {
  timeout = std::clamp(timeout, std::chrono::milliseconds(0), longestTimeout);
  const auto deadline = _scheduler->now() + timeout;
  bool first = false;
  std::uint64_t id = 0;
  {
    std::unique_lock held(_lock);
    id = _next++;
    if (_closed) {
      held.unlock();
      raiseTimeout(std::move(handler));
      return id;
    }
    _entries.emplace(id, Entry{std::move(handler), deadline});
    _deadlines.emplace(deadline, id);
    first = deadline < _armedFor;
    if (first) _armedFor = deadline;
  }
  if (first) arm(deadline);
  return id;
}

void SocketAcks::resolve(std::uint64_t id, SocketItems items) {
  Handler handler;
  {
    std::scoped_lock held(_lock);
    const auto found = _entries.find(id);
    if (found == _entries.end()) return;
    handler = std::move(found->second.handler);
    _deadlines.erase({found->second.deadline, id});
    _entries.erase(found);
  }
  _queue->async([handler = std::move(handler), items = std::move(items)] { handler(items); });
}

void SocketAcks::close() {
  std::unordered_map<std::uint64_t, Entry> left;
  std::unique_ptr<Timer> timer;
  {
    std::scoped_lock held(_lock);
    _closed = true;
    left.swap(_entries);
    _deadlines.clear();
    timer.swap(_timer);
    _armedFor = Time::max();
  }
  for (auto& [id, entry] : left) raiseTimeout(std::move(entry.handler));
}

void SocketAcks::arm(Time deadline) {
  const auto wait = std::chrono::ceil<std::chrono::milliseconds>(deadline - _scheduler->now());
  auto timer =
      _scheduler->after(std::max(wait, std::chrono::milliseconds(0)), [weak = weak_from_this()] {
        if (auto self = weak.lock()) self->expire();
      });
  std::scoped_lock held(_lock);
  // Somebody may have armed an earlier one meanwhile: then that one stays and ours goes.
  if (_armedFor == deadline && !_closed) _timer.swap(timer);
}

void SocketAcks::expire() {
  std::vector<Handler> late;
  Time next = Time::max();
  {
    std::scoped_lock held(_lock);
    const auto now = _scheduler->now();
    while (!_deadlines.empty() && _deadlines.begin()->first <= now) {
      const auto found = _entries.find(_deadlines.begin()->second);
      late.push_back(std::move(found->second.handler));
      _entries.erase(found);
      _deadlines.erase(_deadlines.begin());
    }
    if (!_deadlines.empty()) next = _deadlines.begin()->first;
    _armedFor = next;
  }
  for (auto& handler : late) raiseTimeout(std::move(handler));
  if (next != Time::max()) arm(next);
}

void SocketAcks::raiseTimeout(Handler handler) {
  _queue->async([handler = std::move(handler)] {
    handler({SocketItem(Value(SocketIOClient::timeoutMarker))});
  });
}

}  // namespace kestrova
