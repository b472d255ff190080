#include <kestrova/tracing/TracePost.h>

#include <boost/asio/co_spawn.hpp>

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <utility>

namespace kestrova {

struct TracePost::State {
  std::mutex lock;
  std::condition_variable changed;
  Clock::time_point end = Clock::time_point::max();
  // The number of the request that was answered last, and whether it was taken.
  int asked = 0;
  int answered = 0;
  bool taken = false;

  void answer(int number, bool wasTaken) {
    const std::lock_guard held(lock);
    if (number <= answered) return;
    answered = number;
    taken = wasTaken;
    changed.notify_all();
  }
};

namespace {

bool isTaken(const std::exception_ptr& failure, const URLResponse& response) {
  return !failure && response.status >= 200 && response.status < 300;
}

}  // namespace

TracePost::TracePost(TracePostOptions options)
    : _options(std::move(options)), _state(std::make_shared<State>()) {}

TracePost::~TracePost() = default;

URLRequest TracePost::request(std::optional<std::string> body) const {
  URLRequest request{
      .method = "POST", .url = _options.endpoint, .timeout = _options.requestTimeout};
  if (!body) return request;
  request.headers = {{"Content-Type", "application/x-protobuf"},
                     {"User-Agent", _options.userAgent},
                     {"Authorization", _options.token}};
  request.body = std::move(*body);
  return request;
}

bool TracePost::send(std::optional<std::string> body) {
  const auto start = Clock::now();
  int number = 0;
  {
    const std::lock_guard held(_state->lock);
    if (_state->end <= start) return false;
    number = ++_state->asked;
  }
  boost::asio::co_spawn(_options.platform->background,
                        _options.platform->urlSession->data(request(std::move(body))),
                        [state = _state, platform = _options.platform, number](
                            std::exception_ptr failure, const URLResponse& response) {
                          state->answer(number, isTaken(failure, response));
                        });
  const auto limit = start + _options.exportTimeout;
  std::unique_lock held(_state->lock);
  while (_state->answered < number) {
    const auto end = std::min(_state->end, limit);
    if (Clock::now() >= end) return false;
    _state->changed.wait_until(held, end);
  }
  return _state->taken;
}

void TracePost::giveUpAt(Clock::time_point time) {
  const std::lock_guard held(_state->lock);
  _state->end = std::min(_state->end, time);
  _state->changed.notify_all();
}

}  // namespace kestrova
