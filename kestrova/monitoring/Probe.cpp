#include <kestrova/monitoring/Probe.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/tracing/Uuid.h>

#include <algorithm>
#include <utility>

namespace kestrova {
namespace {

constexpr std::size_t idLength = 12;

std::string randomId() {
  auto text = Uuid::random().text();
  std::erase(text, '-');
  text.resize(idLength);
  return text;
}

bool isUsable(const Transport& transport) {
  const auto state = transport.connectionState();
  return state != TransportConnectionState::closed && state != TransportConnectionState::failed &&
         state != TransportConnectionState::disconnected;
}

}  // namespace

Task<List> MonitoringObject::getStats() const {
  // The coroutine runs when it is awaited; this object may be gone by then.
  return [](std::shared_ptr<Transport> transport) -> Task<List> {
    if (!transport || !isUsable(*transport)) co_return List();
    auto asking = transport->statsList();
    co_return co_await std::move(asking);
  }(sendTransport ? std::shared_ptr<Transport>(sendTransport) : recieveTransport);
}

Probe::Probe(MonitoringObject monitoringObject, KestrovaMetricsConfig config)
    : _id(randomId()),
      _monitoringObject(std::move(monitoringObject)),
      _config(std::move(config)),
      _scheduler(Platform::current()->scheduler),
      _timerQueue(SerialQueue::make("live.kestrova.probe.stats")),
      _collector({.probeId = _id,
                  .roomId = _config.roomId,
                  .name = _config.name,
                  .peerId = _config.peerId}) {}

Probe::~Probe() = default;

void Probe::setDelegate(std::weak_ptr<ProbeDelegate> delegate) {
  std::scoped_lock held(_timerLock);
  _delegate = std::move(delegate);
}

void Probe::start() {
  std::scoped_lock held(_timerLock);
  if (std::exchange(_running, true)) return;
  arm(_scheduler->now() + std::chrono::milliseconds(_config.refreshEvery));
}

void Probe::stop() {
  std::scoped_lock held(_timerLock);
  _running = false;
  _timer.reset();
}

/// The lock is held. A process that slept does not make up for what it missed.
void Probe::arm(Clock::time_point next) {
  const auto now = _scheduler->now();
  _next = std::max(next, now);
  const auto wait = std::chrono::ceil<std::chrono::milliseconds>(_next - now);
  _timer = _scheduler->after(wait, [weak = weak_from_this(), queue = _timerQueue] {
    queue->async([weak] {
      if (const auto self = weak.lock()) self->tick();
    });
  });
}

void Probe::tick() {
  {
    std::scoped_lock held(_timerLock);
    if (!_running) return;
    arm(_next + std::chrono::milliseconds(_config.refreshEvery));
  }
  if (!_look.expired()) return;
  auto look = std::make_shared<char>();
  _look = look;
  spawnOn(*_timerQueue, timerAction(weak_from_this(), _monitoringObject, std::move(look)));
}

Task<void> Probe::timerAction(std::weak_ptr<Probe> weak, MonitoringObject monitoringObject,
                              std::shared_ptr<void> /*look*/) {
  std::optional<List> raw;  // which assignment gives the answer's storage
  try {
    auto asking = monitoringObject.getStats();
    raw = co_await std::move(asking);
  } catch (...) {
    // A look that fails finds nothing; the next one comes soon.
  }
  if (const auto self = weak.lock()) self->deliver(raw ? std::move(*raw) : List());
}

void Probe::deliver(List raw) {
  std::shared_ptr<ProbeDelegate> delegate;
  {
    std::scoped_lock held(_timerLock);
    if (!_running) return;
    delegate = _delegate.lock();
  }
  auto report = _collector.collectStats(raw);
  if (!delegate) return;
  const CollectedStats stats{.probeId = _id, .raw = std::move(raw), .report = std::move(report)};
  if (_monitoringObject.isSending())
    delegate->onSendTransportStatsCollected(stats);
  else
    delegate->onRecieveTransportStatsCollected(stats);
}

}  // namespace kestrova
