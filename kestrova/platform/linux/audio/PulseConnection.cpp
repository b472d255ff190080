#include <kestrova/platform/linux/audio/PulseConnection.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

namespace kestrova {
namespace {

constexpr auto kLongestPoll = std::chrono::seconds(60);
/// Without a loop there is nothing to wait for but time, and a stop is noticed this much later.
constexpr auto kBlindWait = std::chrono::milliseconds(10);

}  // namespace

PulseConnection::PulseConnection() : _wakeUp(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (_wakeUp < 0) return;
  _loop.reset(pa_mainloop_new());
  if (!_loop) return;
  const auto woken = [](pa_mainloop_api*, pa_io_event*, int descriptor, pa_io_event_flags_t,
                        void*) {
    eventfd_t calls = 0;
    ::eventfd_read(descriptor, &calls);
  };
  auto* api = pa_mainloop_get_api(_loop.get());
  api->io_new(api, _wakeUp, PA_IO_EVENT_INPUT, woken, nullptr);
}

PulseConnection::~PulseConnection() {
  close();
  _loop.reset();
  if (_wakeUp >= 0) ::close(_wakeUp);
}

bool PulseConnection::open() {
  close();
  if (!_loop) return false;
  _context = pa_context_new(pa_mainloop_get_api(_loop.get()), "KestrovaRTC");
  if (!_context) return false;
  if (pa_context_connect(_context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) close();
  return isOpen();
}

void PulseConnection::close() {
  if (!_context) return;
  pa_context_disconnect(_context);
  pa_context_unref(_context);
  _context = nullptr;
}

bool PulseConnection::isOpen() const {
  return _context && PA_CONTEXT_IS_GOOD(pa_context_get_state(_context));
}

bool PulseConnection::isReady() const {
  return _context && pa_context_get_state(_context) == PA_CONTEXT_READY;
}

void PulseConnection::iterate(Clock::time_point until) {
  const auto now = Clock::now();
  if (!_loop) {
    std::this_thread::sleep_until(std::min(until, now + kBlindWait));
    return;
  }
  const auto wait = std::clamp<Clock::duration>(until - std::min(now, until), {}, kLongestPoll);
  const auto us = std::chrono::duration_cast<std::chrono::microseconds>(wait).count();
  if (pa_mainloop_prepare(_loop.get(), static_cast<int>(us)) < 0) return;
  if (pa_mainloop_poll(_loop.get()) >= 0) pa_mainloop_dispatch(_loop.get());
}

void PulseConnection::wake() {
  if (_wakeUp >= 0) ::eventfd_write(_wakeUp, 1);
}

bool PulseConnection::openUntil(Clock::time_point until) {
  open();
  while (isOpen() && !isReady() && Clock::now() < until) iterate(until);
  return isReady();
}

bool PulseConnection::await(pa_operation* operation, Clock::time_point until) {
  if (!operation) return false;
  while (pa_operation_get_state(operation) == PA_OPERATION_RUNNING && isOpen() &&
         Clock::now() < until)
    iterate(until);
  const bool isDone = pa_operation_get_state(operation) == PA_OPERATION_DONE;
  pa_operation_cancel(operation);
  pa_operation_unref(operation);
  return isDone;
}

std::unique_ptr<pa_proplist, FreeProperties> callProperties() {
  std::unique_ptr<pa_proplist, FreeProperties> list(pa_proplist_new());
  pa_proplist_sets(list.get(), PA_PROP_MEDIA_ROLE, "phone");
  return list;
}

}  // namespace kestrova
