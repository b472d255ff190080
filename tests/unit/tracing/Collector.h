#pragma once

#include <kestrova/platform/Await.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Runtime.h>

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace kestrova {

/// Stands for a telemetry service: keeps what is posted to it, and answers or not. Any thread.
class Collector final : public URLSession {
public:
  Task<URLResponse> data(URLRequest request) override {
    bool isHanging = false;
    int status = 0;
    {
      const std::lock_guard held(_lock);
      _requests.push_back(std::move(request));
      isHanging = _isHanging;
      status = _status;
      _changed.notify_all();
    }
    if (isHanging) {
      auto wait = [this](Completion<int> done) {
        const std::lock_guard held(_lock);
        _waiting.push_back(std::move(done));
        _changed.notify_all();
      };
      status = co_await awaitCallback<int>(std::move(wait));
    }
    if (status == 0) throw URLError("no network");
    co_return URLResponse{.status = status};
  }

  /// 0: there is no answer at all.
  void answerWith(int status) {
    const std::lock_guard held(_lock);
    _status = status;
  }
  /// Requests from now on wait.
  void hang(bool isHanging = true) {
    const std::lock_guard held(_lock);
    _isHanging = isHanging;
  }
  /// Waits until so many hang.
  void waitForHanging(std::size_t count) {
    std::unique_lock held(_lock);
    _changed.wait(held, [&] { return _waiting.size() >= count; });
  }
  /// Answers the one that came as `index`.
  void release(std::size_t index, int status) {
    std::unique_lock held(_lock);
    const auto done = _waiting.at(index);
    held.unlock();
    done(status);
  }
  /// Waits until so many came.
  std::vector<URLRequest> waitFor(std::size_t count) {
    std::unique_lock held(_lock);
    _changed.wait(held, [&] { return _requests.size() >= count; });
    return _requests;
  }
  std::size_t count() const {
    const std::lock_guard held(_lock);
    return _requests.size();
  }

  /// A platform with nothing but this and real threads.
  static std::shared_ptr<const Platform> platform(std::shared_ptr<Collector> collector) {
    return std::make_shared<const Platform>(
        Platform{.background = Runtime::background(), .urlSession = std::move(collector)});
  }

private:
  mutable std::mutex _lock;
  std::condition_variable _changed;
  std::vector<URLRequest> _requests;
  std::vector<Completion<int>> _waiting;
  int _status = 200;
  bool _isHanging = false;
};

}  // namespace kestrova
