#include <kestrova/platform/linux/capture/PeriodicThread.h>

#include <vector>

namespace kestrova {
namespace {

/// Being later than this (a suspended machine) is forgiven instead of caught up with in a burst.
constexpr auto kLongestLag = std::chrono::milliseconds(200);

}  // namespace

struct PeriodicThread::State {
  std::chrono::nanoseconds period;
  std::function<void(std::int64_t)> tick;  // the thread itself
  std::mutex lock;
  std::condition_variable wake;
  // Under lock:
  bool stopping = false;
  bool ended = false;
  std::vector<std::function<void()>> whenStopped;
};

PeriodicThread::PeriodicThread(std::chrono::nanoseconds period,
                               std::function<void(std::int64_t)> tick)
    : _state(std::make_shared<State>()) {
  _state->period = period;
  _state->tick = std::move(tick);
  _thread = std::thread([state = _state] { loop(state); });
}

PeriodicThread::~PeriodicThread() {
  stop();
  if (_thread.get_id() == std::this_thread::get_id())
    _thread.detach();
  else
    _thread.join();
}

void PeriodicThread::stop(std::function<void()> stopped) {
  {
    std::scoped_lock held(_state->lock);
    _state->stopping = true;
    if (!_state->ended) {
      if (stopped) _state->whenStopped.push_back(std::move(stopped));
      stopped = nullptr;
    }
  }
  _state->wake.notify_all();
  if (stopped) stopped();
}

void PeriodicThread::loop(const std::shared_ptr<State>& state) {
  auto due = std::chrono::steady_clock::now();
  std::unique_lock held(state->lock);
  for (std::int64_t call = 0;; ++call) {
    if (state->wake.wait_until(held, due, [&] { return state->stopping; })) break;
    held.unlock();
    state->tick(call);
    due += std::chrono::duration_cast<std::chrono::steady_clock::duration>(state->period);
    const auto now = std::chrono::steady_clock::now();
    if (now - due > kLongestLag) due = now;
    held.lock();
  }
  state->ended = true;
  auto whenStopped = std::move(state->whenStopped);
  held.unlock();
  state->tick = nullptr;  // what it holds goes before anyone is told
  for (const auto& stopped : whenStopped) stopped();
}

}  // namespace kestrova
