#include <kestrova/platform/Await.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Runtime.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <atomic>
#include <thread>

namespace kestrova {
namespace {

/// An io_context with its threads. Never destroyed, so that no static object can outlive it.
class Pool {
public:
  explicit Pool(int threads) : _context(threads) {
    for (int i = 0; i < threads; ++i) std::thread([this] { run(); }).detach();
  }
  boost::asio::io_context::executor_type executor() { return _context.get_executor(); }

private:
  void run() {
    auto guard = boost::asio::make_work_guard(_context);
    _context.run();
  }
  boost::asio::io_context _context;
};

Pool& backgroundPool() {
  // Two at least: a queue may wait on one thread for work that another carries on.
  static auto& pool = *new Pool(std::max(2, static_cast<int>(std::thread::hardware_concurrency())));
  return pool;
}

Pool& networkPool() {
  static auto& pool = *new Pool(1);
  return pool;
}

using SteadyTimer = boost::asio::steady_timer;

class AsioTimer final : public Timer {
public:
  AsioTimer(boost::asio::any_io_executor executor, std::chrono::milliseconds delay, Work work)
      : _shared(std::make_shared<Shared>(std::move(executor), std::move(work))) {
    _shared->timer.expires_after(delay);
    _shared->timer.async_wait([shared = _shared](const boost::system::error_code&) {
      if (!shared->spent.exchange(true)) shared->work();
    });
  }
  ~AsioTimer() override { cancel(); }

  void cancel() override {
    if (_shared->spent.exchange(true)) return;
    boost::asio::post(_shared->timer.get_executor(), [shared = _shared] {
      shared->timer.cancel();
      shared->work = Work();
    });
  }

private:
  struct Shared {
    Shared(boost::asio::any_io_executor executor, Work w)
        : timer(std::move(executor)), work(std::move(w)) {}
    SteadyTimer timer;
    Work work;
    std::atomic<bool> spent{false};
  };
  std::shared_ptr<Shared> _shared;
};

class AsioScheduler final : public Scheduler {
public:
  Clock::time_point now() const override { return Clock::now(); }
  std::int64_t wallClockMs() const override {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
  }
  std::unique_ptr<Timer> after(std::chrono::milliseconds delay, Work work) override {
    return std::make_unique<AsioTimer>(Runtime::network(), delay, std::move(work));
  }
  void detachedAfter(std::chrono::milliseconds delay, Work work) override {
    auto timer = std::make_shared<SteadyTimer>(Runtime::network(), delay);
    timer->async_wait(
        [timer, work = std::move(work)](const boost::system::error_code&) mutable { work(); });
  }
};

}  // namespace

boost::asio::any_io_executor Runtime::background() {
  return backgroundPool().executor();
}
boost::asio::any_io_executor Runtime::network() {
  return networkPool().executor();
}

std::shared_ptr<Scheduler> Runtime::scheduler() {
  static auto& instance = *new std::shared_ptr<Scheduler>(std::make_shared<AsioScheduler>());
  return instance;
}

Task<void> sleepFor(std::chrono::milliseconds delay) {
  auto start = [delay](Completion<bool> done) {
    Platform::current()->scheduler->detachedAfter(delay, [done] { done(true); });
  };
  co_await awaitCallback<bool>(std::move(start));
}

}  // namespace kestrova
