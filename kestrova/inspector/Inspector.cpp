#include <kestrova/inspector/EventFeed.h>
#include <kestrova/inspector/Inbox.h>
#include <kestrova/inspector/Inspector.h>
#include <kestrova/inspector/MeetingWatch.h>
#include <kestrova/inspector/Page.h>
#include <kestrova/inspector/TraceWatch.h>
#include <kestrova/platform/Queue.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <pthread.h>

#include <chrono>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

namespace kestrova {

namespace asio = boost::asio;
using namespace inspector;

namespace {

// For what open pages have still to read.
constexpr std::chrono::milliseconds longestEnd{50};

}  // namespace

struct Inspector::State {
  explicit State(Options options)
      : feed(*loop, PageServer::Options{.port = options.port}, page()),
        inbox(std::make_shared<Inbox>(
            loop, [this](std::vector<Inbox::Change> changes,
                         std::size_t leftOut) { feed.take(std::move(changes), leftOut); })),
        watch(std::make_shared<MeetingWatch>(inbox)),
        traces(inbox) {}

  void finish();

  const std::shared_ptr<asio::io_context> loop = std::make_shared<asio::io_context>(1);
  asio::executor_work_guard<asio::io_context::executor_type> work{loop->get_executor()};
  EventFeed feed;
  asio::steady_timer end{*loop};
  const std::shared_ptr<Inbox> inbox;
  std::shared_ptr<MeetingWatch> watch;
  std::optional<TraceWatch> traces;
  std::thread thread;
};

/// On the thread.
void Inspector::State::finish() {
  feed.server().finish([this] { loop->stop(); });
  end.expires_after(longestEnd);
  end.async_wait([this](const boost::system::error_code&) {
    feed.server().close();
    loop->stop();
  });
}

Inspector::Inspector(const std::shared_ptr<Meeting>& meeting) : Inspector(meeting, Options()) {}

Inspector::Inspector(const std::shared_ptr<Meeting>& meeting, Options options)
    : _state(std::make_unique<State>(options)) {
  _state->thread = std::thread([loop = _state->loop] {
    pthread_setname_np(pthread_self(), "kestrova-inspec");
    loop->run();
  });
  // What is there and what changes are both seen on the main queue, so that nothing falls between.
  MainQueue::shared().async(
      [weak = std::weak_ptr(_state->watch), weakMeeting = std::weak_ptr(meeting)] {
        const auto watch = weak.lock();
        const auto seen = weakMeeting.lock();
        if (watch && seen) watch->start(seen);
      });
}

Inspector::~Inspector() {
  _state->watch.reset();
  _state->traces.reset();
  asio::post(*_state->loop, [state = _state.get()] { state->finish(); });
  _state->thread.join();
}

std::string Inspector::address() const {
  return _state->feed.server().address();
}

}  // namespace kestrova
