#include <kestrova/platform/linux/audio/DeviceMonitor.h>
#include <kestrova/platform/linux/audio/MicrophoneRoute.h>
#include <kestrova/platform/linux/audio/Speaker.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace kestrova {
namespace {

using Clock = PulseConnection::Clock;
constexpr auto kLongestLook = std::chrono::milliseconds(500);
constexpr auto kShortestWait = std::chrono::milliseconds(250);
constexpr auto kLongestWait = std::chrono::seconds(5);

}  // namespace

class DeviceMonitor::Watch final : public MicrophoneRoute::Follower,
                                   public std::enable_shared_from_this<Watch> {
public:
  explicit Watch(Changed changed) : _changed(std::move(changed)) {}

  void start() {
    MicrophoneRoute::shared().add(weak_from_this());
    try {
      _thread = std::thread([self = shared_from_this()] { self->run(); });
    } catch (const std::system_error&) {
      // The process has no threads left: nothing is known of the devices, as without a server.
    }
  }

  void stop() {
    _stopping = true;
    _connection.wake();
    if (!_thread.joinable()) return;
    if (_thread.get_id() == std::this_thread::get_id())
      _thread.detach();
    else
      _thread.join();
  }

  /// Somebody configured something: perhaps the devices are of interest now.
  void routeChanged() override { _connection.wake(); }

  std::optional<SoundDevices> devices() const {
    std::scoped_lock held(_lock);
    return _devices;
  }

private:
  static bool isWanted() { return MicrophoneRoute::shared().isDevice() || speaker() != "none"; }

  void run() {
    while (!_stopping) {
      if (!isWanted())
        drop();
      else
        tend();
      if (!_stopping) _connection.iterate(_next);
    }
    drop();
  }

  void tend() {
    const auto now = Clock::now();
    if (_connection.context() && !_connection.isOpen()) {
      drop();
      retryLater(now);
    }
    if (!_connection.context()) {
      if (now < _next && _next != Clock::time_point::max()) return;
      _next = Clock::time_point::max();
      if (!_connection.open()) retryLater(now);
    }
    if (!_connection.isReady()) return;
    if (!std::exchange(_listens, true)) listen();
    if (_isStale || now >= _next) look();
  }

  void drop() {
    _connection.close();
    _listens = false;
    _next = Clock::time_point::max();
    std::scoped_lock held(_lock);
    _devices.reset();
  }

  void retryLater(Clock::time_point now) {
    _next = now + _wait;
    _wait = std::min<Clock::duration>(_wait * 2, kLongestWait);
  }

  void listen() {
    _isStale = true;
    pa_context_set_subscribe_callback(
        _connection.context(),
        [](pa_context*, pa_subscription_event_type_t, std::uint32_t, void* self) {
          static_cast<Watch*>(self)->_isStale = true;
        },
        this);
    const auto kinds = static_cast<pa_subscription_mask_t>(
        PA_SUBSCRIPTION_MASK_SINK | PA_SUBSCRIPTION_MASK_SOURCE | PA_SUBSCRIPTION_MASK_SERVER);
    if (auto* asked = pa_context_subscribe(_connection.context(), kinds, nullptr, nullptr))
      pa_operation_unref(asked);
  }

  void look() {
    _isStale = false;
    _next = Clock::time_point::max();
    auto now = readDevices(_connection, Clock::now() + kLongestLook);
    if (!now) return retryLater(Clock::now());  // it hangs, or is gone
    _wait = kShortestWait;
    {
      std::scoped_lock held(_lock);
      _devices = now;
    }
    auto before = std::exchange(_known, now);
    if (!_stopping && before != now) _changed(before, *now);
  }

  const Changed _changed;
  std::atomic<bool> _stopping{false};
  PulseConnection _connection;
  // The monitor's thread:
  bool _listens = false;
  bool _isStale = false;
  Clock::time_point _next = Clock::time_point::max();  // for the next attempt of what failed
  Clock::duration _wait = kShortestWait;
  std::optional<SoundDevices> _known;  // outlasts a server: one that comes back is no change

  mutable std::mutex _lock;
  std::optional<SoundDevices> _devices;  // under _lock
  std::thread _thread;
};

DeviceMonitor::DeviceMonitor(Changed changed)
    : _watch(std::make_shared<Watch>(std::move(changed))) {
  _watch->start();
}

DeviceMonitor::~DeviceMonitor() {
  _watch->stop();
}

std::optional<SoundDevices> DeviceMonitor::devices() const {
  return _watch->devices();
}

}  // namespace kestrova
