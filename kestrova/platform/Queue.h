#pragma once

#include <kestrova/platform/Task.h>
#include <kestrova/platform/Work.h>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/execution.hpp>
#include <boost/asio/execution_context.hpp>

#include <chrono>
#include <memory>
#include <string>

namespace kestrova {

/// A serial context: work handed to it runs one piece at a time, in order.
///
/// `executor()` makes it usable wherever Boost.Asio wants an executor, so that a coroutine can be
/// spawned on a queue.
class Queue : public std::enable_shared_from_this<Queue> {
public:
  virtual ~Queue() = default;
  /// Appends `work` and returns at once. Any thread.
  virtual void async(Work work) = 0;
  /// Whether the calling thread is running this queue's work right now.
  bool isCurrent() const;
  /// As `async`, once `delay` has passed on the process's `Scheduler`. The queue is held weakly.
  void after(std::chrono::milliseconds delay, Work work);

  boost::asio::any_io_executor executor();

protected:
  /// Marks the calling thread as running this queue for as long as it lives.
  class Running {
  public:
    explicit Running(const Queue& queue);
    ~Running();
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

  private:
    const Queue* _outer;
  };
  virtual boost::asio::execution_context& context() = 0;

private:
  friend class QueueExecutor;
};

/// Work that has no place in a release build's hot path: the calling thread must be on `queue`.
void assertOnQueue(const Queue& queue);

/// The Boost.Asio face of a queue. Copyable; equal when the queues are the same.
class QueueExecutor {
public:
  explicit QueueExecutor(std::shared_ptr<Queue> queue) : _queue(std::move(queue)) {}

  boost::asio::execution_context& query(boost::asio::execution::context_t) const noexcept {
    return _queue->context();
  }
  static constexpr boost::asio::execution::blocking_t query(
      boost::asio::execution::blocking_t) noexcept {
    return boost::asio::execution::blocking.never;
  }
  template <class F>
  void execute(F&& f) const {
    _queue->async(Work(std::forward<F>(f)));
  }
  bool operator==(const QueueExecutor& other) const noexcept = default;

private:
  std::shared_ptr<Queue> _queue;
};

/// A labelled serial queue. Its work runs on the process's background executor; a `sync` block runs
/// on the caller's own thread once the queue is free.
class SerialQueue final : public Queue {
public:
  static std::shared_ptr<SerialQueue> make(std::string label);
  ~SerialQueue() override;

  const std::string& label() const { return _label; }
  void async(Work work) override;

  /// Runs `block` as the queue's next piece of work and gives back its result. Must not be called
  /// from the queue itself: that stops a debug build and would wait for ever in any other.
  template <class F>
  auto sync(F&& block) {
    Turn turn(*this);
    return block();
  }

private:
  struct State;
  class Turn {
  public:
    explicit Turn(SerialQueue& queue);
    ~Turn();
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

  private:
    SerialQueue& _queue;
    std::unique_ptr<Running> _running;
  };
  SerialQueue(std::string label, boost::asio::any_io_executor executor);
  boost::asio::execution_context& context() override;
  static void drain(const std::shared_ptr<SerialQueue>& self);

  std::string _label;
  std::unique_ptr<State> _state;
};

/// The one serial context on which every listener is called.
///
/// Unless the application adopts an executor it is a thread of the library, started on first use.
class MainQueue final : public Queue {
public:
  static MainQueue& shared();

  /// Runs listeners on the application's event loop from now on. `executor` must run one piece of
  /// work at a time. Call it before the first meeting is made.
  ///
  /// The loop has work from a meeting's join until its end has been told, or until the application
  /// lets go of it, so `run()` returns when all of them are over. A loop that is destroyed is
  /// replaced by the library's own thread.
  static void adopt(boost::asio::any_io_executor executor);

  /// The loop has work to wait for until the last copy goes.
  std::shared_ptr<void> work();

  void async(Work work) override;

private:
  MainQueue();
  boost::asio::execution_context& context() override;
  boost::asio::any_io_executor target();  // under the state's lock
  void loopGone(const boost::asio::execution_context& loop);

  class LoopWatch;
  struct State;
  std::unique_ptr<State> _state;
};

/// Starts `task` on a background executor, detached; it may begin before this returns when the
/// calling thread is one of that executor. An exception that escapes it is traced to the
/// failure hook of the platform and goes no further.
void spawn(Task<void> task);
/// The same; keeps `owner`, whose operation the task is, until its end.
void spawn(std::shared_ptr<const void> owner, Task<void> task);
/// As the first, on `queue`.
void spawnOn(Queue& queue, Task<void> task);

}  // namespace kestrova
