#include <kestrova/platform/linux/calls/SystemBus.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace kestrova {
namespace {

namespace asio = boost::asio;
using Clock = std::chrono::steady_clock;

constexpr auto shortestWait = std::chrono::milliseconds(100);
constexpr auto longestWait = std::chrono::seconds(10);
constexpr const char* defaultAddress = "unix:path=/run/dbus/system_bus_socket";

}  // namespace

void SystemBus::FreeBus::operator()(sd_bus* bus) const {
  sd_bus_close(bus);
  sd_bus_unref(bus);
}

std::shared_ptr<SystemBus> SystemBus::make(asio::any_io_executor executor, Events events) {
  return std::shared_ptr<SystemBus>(new SystemBus(std::move(executor), std::move(events)));
}

SystemBus::SystemBus(asio::any_io_executor executor, Events events)
    : _events(std::move(events)),
      _timer(executor),
      _executor(std::move(executor)),
      _wait(shortestWait) {}

SystemBus::~SystemBus() = default;

void SystemBus::open() {
  if (_isClosed || _bus) return;
  if (!connect()) return lose();
  _events.opened(*_bus);
  work();
}

void SystemBus::close() {
  _isClosed = true;
  ++_turn;
  _timer.cancel();
  _descriptor.reset();
  _bus.reset();
}

bool SystemBus::connect() {
  sd_bus* bus = nullptr;
  if (sd_bus_new(&bus) < 0) return false;
  _bus.reset(bus);
  const char* address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
  return sd_bus_set_address(bus, address && *address ? address : defaultAddress) >= 0 &&
         sd_bus_set_bus_client(bus, true) >= 0 && sd_bus_set_trusted(bus, false) >= 0 &&
         // A socket that isn't there is waited for, without asking again and again.
         sd_bus_set_watch_bind(bus, true) >= 0 && sd_bus_start(bus) >= 0;
}

void SystemBus::work() {
  int done = 0;
  do {
    done = sd_bus_process(_bus.get(), nullptr);
    if (!_bus) return;  // closed by what was called
  } while (done > 0);
  if (done < 0) return lose();
  if (sd_bus_is_ready(_bus.get()) > 0) _wait = shortestWait;
  listen();
}

void SystemBus::lose() {
  ++_turn;
  _descriptor.reset();
  const bool wasOpen = _bus != nullptr;
  if (wasOpen) _events.lost();
  _bus.reset();
  if (_isClosed) return;
  wakeAt(Clock::now() + _wait);
  _wait = std::min<std::chrono::milliseconds>(_wait * 2, longestWait);
}

/// Waits for what the connection wants to hear of next. Its descriptor may be another each time.
void SystemBus::listen() {
  ++_turn;
  const int descriptor = ::fcntl(sd_bus_get_fd(_bus.get()), F_DUPFD_CLOEXEC, 0);
  const int events = sd_bus_get_events(_bus.get());
  std::uint64_t until = 0;  // microseconds of the monotonic clock
  if (descriptor < 0 || events < 0 || sd_bus_get_timeout(_bus.get(), &until) < 0) {
    if (descriptor >= 0) ::close(descriptor);
    return lose();
  }
  _descriptor.emplace(_executor, descriptor);
  if (events & POLLIN) wakeFor(asio::posix::stream_descriptor::wait_read);
  if (events & POLLOUT) wakeFor(asio::posix::stream_descriptor::wait_write);
  if (until != UINT64_MAX)
    wakeAt(Clock::time_point(std::chrono::microseconds(until)));
  else
    _timer.cancel();
}

void SystemBus::wakeFor(asio::posix::stream_descriptor::wait_type what) {
  _descriptor->async_wait(what, [weak = weak_from_this(), turn = _turn](const auto& error) {
    const auto self = weak.lock();
    if (!error && self && self->_turn == turn) self->work();
  });
}

void SystemBus::wakeAt(Clock::time_point when) {
  _timer.expires_at(when);
  _timer.async_wait([weak = weak_from_this(), turn = _turn](const auto& error) {
    const auto self = weak.lock();
    if (error || !self || self->_turn != turn) return;
    self->_bus ? self->work() : self->open();
  });
}

}  // namespace kestrova
