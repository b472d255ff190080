#pragma once

#include <kestrova/platform/Task.h>

#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <atomic>
#include <memory>
#include <utility>

namespace kestrova {

/// Resumes one suspended coroutine, once. Copies share the one shot; calls after the first do
/// nothing. Safe from any thread: the coroutine goes on, on its own executor.
///
/// Letting every copy go without a call ends the coroutine where it waits.
template <class T>
class Completion {
public:
  template <class Handler>
  explicit Completion(Handler handler)
      : _shot(std::make_shared<Shot<Handler>>(std::move(handler))) {}

  void operator()(T value) const {
    if (!_shot->fired.exchange(true)) _shot->fire(std::move(value));
  }

private:
  struct AnyShot {
    virtual ~AnyShot() = default;
    virtual void fire(T value) = 0;
    std::atomic<bool> fired{false};
  };
  template <class Handler>
  struct Shot final : AnyShot {
    explicit Shot(Handler h) : handler(std::move(h)) {}
    void fire(T value) override {
      auto executor = boost::asio::get_associated_executor(handler);
      boost::asio::post(executor, [h = std::move(handler), v = std::move(value)]() mutable {
        std::move(h)(std::move(v));
      });
    }
    Handler handler;
  };
  std::shared_ptr<AnyShot> _shot;
};

/// Turns an operation that reports by callback into an awaitable one: `start` is called with the
/// `Completion` that ends the wait.
template <class T, class Start>
Task<T> awaitCallback(Start start) {
  auto initiate = [](auto handler, Start begin) { begin(Completion<T>(std::move(handler))); };
  co_return co_await boost::asio::async_initiate<const boost::asio::use_awaitable_t<>, void(T)>(
      initiate, boost::asio::use_awaitable, std::move(start));
}

}  // namespace kestrova
