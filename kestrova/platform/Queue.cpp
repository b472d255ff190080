#include <kestrova/platform/Escaped.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Queue.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>

#include <cassert>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <exception>
#include <list>
#include <mutex>
#include <optional>
#include <thread>
#include <variant>
#include <vector>

namespace kestrova {

void reportEscaped(const char* where) noexcept {
  try {
    throw;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "Kestrova: an exception escaped from %s: %s\n", where, error.what());
  } catch (...) {
    std::fprintf(stderr, "Kestrova: an exception escaped from %s\n", where);
  }
}

namespace {

thread_local const Queue* currentQueue = nullptr;

void runGuarded(Work& work, const char* where) {
  try {
    work();
  } catch (...) {
    reportEscaped(where);
  }
}

struct ReportFailure {
  void operator()(std::exception_ptr failure) const {
    if (!failure) return;
    try {
      std::rethrow_exception(failure);
    } catch (...) {
      reportEscaped("a task");
    }
  }
};

}  // namespace

Queue::Running::Running(const Queue& queue) : _outer(std::exchange(currentQueue, &queue)) {}
Queue::Running::~Running() {
  currentQueue = _outer;
}

bool Queue::isCurrent() const {
  return currentQueue == this;
}

void Queue::after(std::chrono::milliseconds delay, Work work) {
  auto wake = [weak = weak_from_this(), work = std::move(work)]() mutable {
    if (auto queue = weak.lock()) queue->async(std::move(work));
  };
  Platform::current()->scheduler->detachedAfter(delay, std::move(wake));
}

boost::asio::any_io_executor Queue::executor() {
  return QueueExecutor(shared_from_this());
}

void assertOnQueue([[maybe_unused]] const Queue& queue) {
  assert(queue.isCurrent());
}

// ---- SerialQueue -------------------------------------------------------------------------------

namespace {

struct Waiter {
  std::condition_variable wake;
  bool turn = false;
};
using Entry = std::variant<Work, Waiter*>;

}  // namespace

struct SerialQueue::State {
  explicit State(boost::asio::any_io_executor e) : executor(std::move(e)) {}

  std::mutex lock;
  std::deque<Entry> entries;
  bool active = false;     // some thread runs this queue's work
  bool scheduled = false;  // a drain is on its way to the executor
  boost::asio::any_io_executor executor;

  void schedule(const std::shared_ptr<SerialQueue>& queue) {
    if (std::exchange(scheduled, true)) return;
    boost::asio::post(executor, [queue] { SerialQueue::drain(queue); });
  }

  /// Ends the active thread's hold; the lock is held.
  void release(const std::shared_ptr<SerialQueue>& queue) {
    // A waiting caller goes on with what stands before it, too: every thread of the executor may be
    // waiting here. So nobody waits at a queue that has no active thread.
    for (auto& entry : entries) {
      auto* const* waiter = std::get_if<Waiter*>(&entry);
      if (!waiter) continue;
      (*waiter)->turn = true;  // the hold passes on: `active` stays set
      (*waiter)->wake.notify_one();
      return;
    }
    active = false;
    if (!entries.empty()) schedule(queue);
  }

  bool hasWorkInFront() const {
    return !entries.empty() && std::holds_alternative<Work>(entries.front());
  }

  void runFront(std::unique_lock<std::mutex>& held, const std::string& label) {
    Work work = std::move(std::get<Work>(entries.front()));
    entries.pop_front();
    held.unlock();
    runGuarded(work, label.c_str());
    work = Work();  // what the work holds goes before the next piece starts
    held.lock();
  }
};

SerialQueue::SerialQueue(std::string label, boost::asio::any_io_executor executor)
    : _label(std::move(label)), _state(std::make_unique<State>(std::move(executor))) {}
SerialQueue::~SerialQueue() = default;

std::shared_ptr<SerialQueue> SerialQueue::make(std::string label) {
  return std::shared_ptr<SerialQueue>(
      new SerialQueue(std::move(label), Platform::current()->background));
}

boost::asio::execution_context& SerialQueue::context() {
  return _state->executor.context();
}

void SerialQueue::async(Work work) {
  auto self = std::static_pointer_cast<SerialQueue>(shared_from_this());
  std::scoped_lock held(_state->lock);
  _state->entries.emplace_back(std::move(work));
  if (!_state->active) _state->schedule(self);
}

void SerialQueue::drain(const std::shared_ptr<SerialQueue>& self) {
  auto& state = *self->_state;
  std::unique_lock held(state.lock);
  state.scheduled = false;
  if (state.active) return;  // that thread's release takes over
  state.active = true;
  {
    Running running(*self);
    while (state.hasWorkInFront()) state.runFront(held, self->_label);
  }
  state.release(self);
}

SerialQueue::Turn::Turn(SerialQueue& queue) : _queue(queue) {
  assert(!queue.isCurrent() && "sync from within the queue itself");
  auto& state = *queue._state;
  std::unique_lock held(state.lock);
  if (state.active) {
    Waiter waiter;
    state.entries.emplace_back(&waiter);
    waiter.wake.wait(held, [&] { return waiter.turn; });
    _running = std::make_unique<Running>(queue);
    while (state.hasWorkInFront()) state.runFront(held, queue._label);
    state.entries.pop_front();  // ourselves
    return;
  }
  // Nobody is at work: what stands before us is run here, so that a caller never waits for a
  // thread.
  state.active = true;
  _running = std::make_unique<Running>(queue);
  for (auto ahead = state.entries.size(); ahead > 0; --ahead) state.runFront(held, queue._label);
}

SerialQueue::Turn::~Turn() {
  _running.reset();
  auto self = std::static_pointer_cast<SerialQueue>(_queue.shared_from_this());
  std::scoped_lock held(_queue._state->lock);
  _queue._state->release(self);
}

// ---- MainQueue ---------------------------------------------------------------------------------

struct MainQueue::State {
  using Guard = std::optional<boost::asio::any_io_executor>;

  std::mutex lock;  // for the fields below
  boost::asio::any_io_executor adopted;
  std::list<Guard> guards;
  std::unique_ptr<boost::asio::io_context> context;
  std::unique_ptr<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> guard;
};

/// Part of an adopted loop: learns of its end before any of its work is thrown away.
class MainQueue::LoopWatch final : public boost::asio::execution_context::service {
public:
  static inline boost::asio::execution_context::id id;
  explicit LoopWatch(boost::asio::execution_context& loop) : service(loop) {}

private:
  void shutdown() override { MainQueue::shared().loopGone(context()); }
};

MainQueue::MainQueue() : _state(std::make_unique<State>()) {}

MainQueue& MainQueue::shared() {
  // Never destroyed: its thread may outlast the static objects of the program.
  static auto& instance = *new std::shared_ptr<MainQueue>(new MainQueue);
  return *instance;
}

void MainQueue::adopt(boost::asio::any_io_executor executor) {
  if (executor) boost::asio::use_service<LoopWatch>(executor.context());
  auto& state = *shared()._state;
  std::scoped_lock held(state.lock);
  state.adopted = std::move(executor);
}

void MainQueue::loopGone(const boost::asio::execution_context& loop) {
  std::scoped_lock held(_state->lock);
  for (auto& guard : _state->guards)
    if (guard && &guard->context() == &loop) guard.reset();
  auto& adopted = _state->adopted;
  if (adopted && &adopted.context() == &loop) adopted = {};
}

std::shared_ptr<void> MainQueue::work() {
  std::scoped_lock held(_state->lock);
  _state->guards.emplace_front(
      boost::asio::prefer(target(), boost::asio::execution::outstanding_work.tracked));
  return {&_state->guards.front(), [state = _state.get()](State::Guard* guard) {
            std::scoped_lock letting(state->lock);  // so that the loop doesn't go meanwhile
            state->guards.remove_if([&](const auto& each) { return &each == guard; });
          }};
}

boost::asio::any_io_executor MainQueue::target() {
  if (_state->adopted) return _state->adopted;
  if (!_state->context) {
    _state->context = std::make_unique<boost::asio::io_context>(1);
    _state->guard =
        std::make_unique<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>>(
            _state->context->get_executor());
    std::thread([context = _state->context.get()] { context->run(); }).detach();
  }
  return _state->context->get_executor();
}

boost::asio::execution_context& MainQueue::context() {
  std::scoped_lock held(_state->lock);
  return target().context();
}

void MainQueue::async(Work work) {
  // Under the lock: an adopted loop can't go in between.
  std::scoped_lock held(_state->lock);
  boost::asio::post(target(), [this, work = std::move(work)]() mutable {
    Running running(*this);
    runGuarded(work, "the main queue");
  });
}

// ---- Tasks -------------------------------------------------------------------------------------

void spawn(Task<void> task) {
  auto strand = boost::asio::make_strand(Platform::current()->background);
  boost::asio::co_spawn(strand, std::move(task), ReportFailure{});
}

void spawn(std::shared_ptr<const void> owner, Task<void> task) {
  auto holding = [](std::shared_ptr<const void>, Task<void> held) -> Task<void> {
    co_await std::move(held);
  };
  spawn(holding(std::move(owner), std::move(task)));
}

void spawnOn(Queue& queue, Task<void> task) {
  boost::asio::co_spawn(queue.executor(), std::move(task), ReportFailure{});
}

}  // namespace kestrova
