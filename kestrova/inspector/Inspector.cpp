#include <kestrova/inspector/EventFeed.h>
#include <kestrova/inspector/Inbox.h>
#include <kestrova/inspector/Inspector.h>
#include <kestrova/inspector/LoopThread.h>
#include <kestrova/inspector/MeetingWatch.h>
#include <kestrova/inspector/Page.h>
#include <kestrova/inspector/TraceWatch.h>
#include <kestrova/platform/Queue.h>

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <unistd.h>

#include <chrono>
#include <optional>
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
      : feed(*thread.loop(), PageServer::Options{.port = options.port}, page()),
        inbox(std::make_shared<Inbox>(
            thread.loop(),
            [this](std::vector<Inbox::Change> changes, std::size_t leftOut) {
              feed.take(std::move(changes), leftOut);
            })),
        watch(std::make_shared<MeetingWatch>(inbox)),
        traces(inbox) {}

  void finish();

  const pid_t process = ::getpid();
  LoopThread thread;
  EventFeed feed;
  asio::steady_timer end{*thread.loop()};
  const std::shared_ptr<Inbox> inbox;
  std::shared_ptr<MeetingWatch> watch;
  std::optional<TraceWatch> traces;
};

/// On the thread.
void Inspector::State::finish() {
  end.expires_after(longestEnd);
  end.async_wait([this](const boost::system::error_code&) {
    thread.loop()->stop();
    feed.server().close();
  });
  feed.server().finish([this] { thread.loop()->stop(); });
}

Inspector::Inspector(const std::shared_ptr<Meeting>& meeting) : Inspector(meeting, Options()) {}

Inspector::Inspector(const std::shared_ptr<Meeting>& meeting, Options options)
    : _state(std::make_unique<State>(options)) {
  _state->thread.start();
  // What is there and what changes are both seen on the main queue, so that nothing falls between.
  MainQueue::shared().async(
      [weak = std::weak_ptr(_state->watch), weakMeeting = std::weak_ptr(meeting)] {
        const auto watch = weak.lock();
        const auto seen = weakMeeting.lock();
        if (watch && seen) watch->start(seen);
      });
}

Inspector::~Inspector() {
  // In a child that a fork made there is no such thread to wait for, and what the locks guard may
  // have been half done: all of it belongs to the parent.
  if (::getpid() != _state->process) {
    static_cast<void>(_state.release());
    return;
  }
  _state->watch.reset();
  _state->traces.reset();
  asio::post(*_state->thread.loop(), [state = _state.get()] { state->finish(); });
  _state->thread.join();
}

std::string Inspector::address() const {
  return _state->feed.server().address();
}

}  // namespace kestrova
