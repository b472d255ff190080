#pragma once

#include <kestrova/platform/Work.h>

#include <condition_variable>
#include <deque>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <type_traits>
#include <utility>

namespace kestrova {

/// The one thread from which the engine is driven: what it negotiates takes turns here, whichever
/// transport it is for. Its work may wait for the engine, which therefore never waits for it.
class EngineThread {
public:
  EngineThread();
  /// Runs what was posted, then ends the thread. Not on the thread itself.
  ~EngineThread();
  EngineThread(const EngineThread&) = delete;
  EngineThread& operator=(const EngineThread&) = delete;

  void post(Work work);
  bool isCurrent() const { return std::this_thread::get_id() == _thread.get_id(); }

  /// Runs `block` here, after everything posted before, and gives back its result or its exception.
  template <class F>
  auto run(F&& block) -> std::invoke_result_t<F> {
    if (isCurrent()) return block();
    std::packaged_task<std::invoke_result_t<F>()> task(std::forward<F>(block));
    auto result = task.get_future();
    post(std::move(task));
    return result.get();
  }

private:
  void loop();

  std::mutex _lock;
  std::condition_variable _wake;
  std::deque<Work> _work;
  bool _ending = false;
  std::thread _thread;
};

/// Whether the calling thread belongs to the engine, or is in the middle of delivering a picture or
/// samples for it. Waiting for the engine from there would be waiting for oneself.
bool inEngineCallback();

/// Marks the calling thread as delivering for the engine for as long as it lives.
class EngineCallback {
public:
  EngineCallback();
  ~EngineCallback();
  EngineCallback(const EngineCallback&) = delete;
  EngineCallback& operator=(const EngineCallback&) = delete;
};

}  // namespace kestrova
