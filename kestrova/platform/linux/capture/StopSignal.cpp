#include <kestrova/platform/linux/capture/StopSignal.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace kestrova {

StopSignal::StopSignal() : _fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (_fd < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

StopSignal::~StopSignal() {
  ::close(_fd);
}

void StopSignal::raise() {
  ::eventfd_write(_fd, 1);  // fails only when it is raised so often that it overflows
}

bool StopSignal::waitUntil(TimePoint due) const {
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::nanoseconds>(due - std::chrono::steady_clock::now())
            .count();
    const auto wait = std::max<std::int64_t>(left, 0);
    const timespec limit{wait / 1'000'000'000, wait % 1'000'000'000};
    pollfd waiting{_fd, POLLIN, 0};
    const int ready = ::ppoll(&waiting, 1, &limit, nullptr);
    if (ready > 0) return true;
    if (ready == 0) return false;
    // Interrupted by a signal: wait for what is left.
  }
}

}  // namespace kestrova
