#include <kestrova/platform/linux/socketio/SocketAcks.h>

#include <algorithm>
#include <map>

namespace kestrova {

namespace {

// Keeps "never" from overflowing a time point.
constexpr std::chrono::milliseconds longestTimeout = std::chrono::hours(24 * 365);

}  // namespace

SocketAcks::SocketAcks(std::shared_ptr<Queue> queue, std::shared_ptr<Scheduler> scheduler)
    : _queue(std::move(queue)), _scheduler(std::move(scheduler)) {}

std::uint64_t SocketAcks::add(std::uint64_t connection, std::chrono::milliseconds timeout,
                              Handler handler) {
  timeout = std::clamp(timeout, std::chrono::milliseconds(0), longestTimeout);
  const auto deadline = _scheduler->now() + timeout;
  bool first = false;
  std::uint64_t id = 0;
  {
    std::unique_lock held(_lock);
    id = _next++;
    if (connection <= _ended) {
      held.unlock();
      raise(std::move(handler), SocketIOClient::disconnectMarker);
      return id;
    }
    _entries.emplace(id, Entry{std::move(handler), deadline, connection});
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

void SocketAcks::end(std::uint64_t connection) {
  std::map<std::uint64_t, Handler> left;
  std::unique_ptr<Timer> timer;
  {
    std::scoped_lock held(_lock);
    _ended = std::max(_ended, connection);
    for (auto entry = _entries.begin(); entry != _entries.end();) {
      if (entry->second.connection > connection) {
        ++entry;
        continue;
      }
      _deadlines.erase({entry->second.deadline, entry->first});
      left.emplace(entry->first, std::move(entry->second.handler));
      entry = _entries.erase(entry);
    }
    if (_entries.empty()) {
      timer.swap(_timer);
      _armedFor = Time::max();
    }
  }
  for (auto& [id, handler] : left) raise(std::move(handler), SocketIOClient::disconnectMarker);
}

void SocketAcks::arm(Time deadline) {
  const auto wait = std::chrono::ceil<std::chrono::milliseconds>(deadline - _scheduler->now());
  auto timer =
      _scheduler->after(std::max(wait, std::chrono::milliseconds(0)), [weak = weak_from_this()] {
        if (auto self = weak.lock()) self->expire();
      });
  std::scoped_lock held(_lock);
  // Somebody may have armed an earlier one meanwhile: then that one stays and ours goes.
  if (_armedFor == deadline) _timer.swap(timer);
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
  for (auto& handler : late) raise(std::move(handler), SocketIOClient::timeoutMarker);
  if (next != Time::max()) arm(next);
}

void SocketAcks::raise(Handler handler, const char* marker) {
  _queue->async([handler = std::move(handler), marker] { handler({SocketItem(Value(marker))}); });
}

}  // namespace kestrova
