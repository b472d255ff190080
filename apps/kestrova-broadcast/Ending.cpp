#include "Ending.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

namespace kestrova::broadcast {

Ending::Ending(bool hasLifeline) : _lifeline(hasLifeline ? STDIN_FILENO : -1) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set, signal);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  _signals = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  if (_signals < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
}

Ending::~Ending() {
  ::close(_signals);
}

short Ending::wait(int handle, short events, std::optional<TimePoint> due) const {
  for (;;) {
    std::array<pollfd, 3> polled{
        {{_signals, POLLIN, 0}, {_lifeline, POLLIN, 0}, {handle, events, 0}}};
    timespec limit{};
    if (due) {
      const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(
                            *due - std::chrono::steady_clock::now())
                            .count();
      const auto wait = std::max<decltype(left)>(left, 0);
      limit = {wait / 1'000'000'000, wait % 1'000'000'000};
    }
    const int ready = ::ppoll(polled.data(), polled.size(), due ? &limit : nullptr, nullptr);
    if (ready == 0) return 0;
    if (ready < 0 && errno != EINTR)
      throw std::system_error(errno, std::generic_category(), "poll");
    if (ready < 0) continue;
    // Nobody writes to the lifeline: whatever is to be read there is its end.
    if (polled[0].revents || polled[1].revents) throw Reached();
    if (polled[2].revents) return polled[2].revents;
  }
}

}  // namespace kestrova::broadcast
