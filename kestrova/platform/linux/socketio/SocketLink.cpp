#include <kestrova/platform/linux/socketio/SocketLink.h>

#include <boost/asio/post.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <utility>

namespace kestrova {

namespace asio = boost::asio;

namespace {

double chance() {
  thread_local std::minstd_rand generator{std::random_device{}()};
  return std::uniform_real_distribution<double>(0, 1)(generator);
}

}  // namespace

std::chrono::milliseconds reconnectDelay(const LinkOptions& options, int attempt, double chance) {
  const auto most =
      static_cast<double>(std::max<std::int64_t>(0, options.reconnectWaitMax.count()));
  const auto first = static_cast<double>(std::max<std::int64_t>(0, options.reconnectWait.count()));
  const double wait = std::min(most, std::ldexp(first, std::min(attempt, 62)));
  const double jittered = std::min(most, wait * (1 + chance / 2));
  return std::chrono::milliseconds(static_cast<std::int64_t>(jittered));
}

SocketLink::SocketLink(asio::any_io_executor io, std::shared_ptr<Scheduler> scheduler,
                       LinkOptions options)
    : _strand(asio::make_strand(std::move(io))),
      _scheduler(std::move(scheduler)),
      _options(std::move(options)) {}

void SocketLink::start(std::uint64_t session) {
  asio::post(_strand, [self = shared_from_this(), session] {
    if (session <= self->_session) return;
    self->release();
    self->_session = session;
    self->_attempts = 0;
    self->_down = false;
    self->open();
  });
}

void SocketLink::setTarget(std::string target) {
  asio::post(_strand, [self = shared_from_this(), target = std::move(target)]() mutable {
    self->_options.endpoint.target = std::move(target);
  });
}

void SocketLink::stop(std::uint64_t session, std::shared_ptr<void> goodbye) {
  asio::post(_strand, [self = shared_from_this(), session, goodbye = std::move(goodbye)]() mutable {
    if (session <= self->_session) return;
    self->_session = session;
    self->release(std::move(goodbye));
  });
}

void SocketLink::open() {
  auto& trust = _options.engine.socket.trust;
  if (_options.endpoint.secure && !trust) trust = makeTlsTrust();
  _phase = Phase::connecting;
  _decoder.emplace(_options.engine.socket.limits.maxIncomingBytes,
                   [this](const char* why, std::optional<std::uint64_t> ack) {
                     if (const auto listener = _listener.lock())
                       listener->linkSkipped(_session, why, ack);
                   });
  _connection = std::make_shared<EngineConnection>(_strand, _options.engine, weak_from_this());
  _connection->start(_options.endpoint);
}

void SocketLink::release(std::shared_ptr<void> goodbye) {
  _phase = Phase::idle;
  _timer.reset();
  if (auto connection = std::exchange(_connection, nullptr))
    connection->close(encodeDisconnect(), std::move(goodbye));
}

// ---- From the connection -----------------------------------------------------------------------

void SocketLink::engineOpened() {
  _connection->send(encodeConnect());
}

void SocketLink::engineText(std::string_view message) {
  SocketIOPacket packet;
  if (_decoder->text(message, packet)) handle(packet);
}

void SocketLink::engineBytes(std::span<const std::uint8_t> message) {
  SocketIOPacket packet;
  if (_decoder->bytes(message, packet)) handle(packet);
}

void SocketLink::engineClosed(const std::string& reason) {
  _connection.reset();
  lost(reason);
}

void SocketLink::handle(SocketIOPacket& packet) {
  const auto listener = _listener.lock();
  if (!listener) return;
  switch (packet.type) {
    case SocketIOType::connect:
      if (_phase != Phase::connecting) return;
      _phase = Phase::connected;
      _connectedAt = _scheduler->now();
      _down = false;
      _connection->admitted();
      return listener->linkUp(_session, _connection);
    case SocketIOType::connectError:
      if (_phase != Phase::connecting) return;
      listener->linkError(_session, std::move(packet.data));
      return end("the server refused the connection");
    case SocketIOType::disconnect:
      return end("the server disconnected the client");
    case SocketIOType::event:
    case SocketIOType::ack:
      if (_phase == Phase::connected) listener->linkPacket(_session, std::move(packet));
      return;
  }
}

// ---- Loss and return ---------------------------------------------------------------------------

void SocketLink::lost(const std::string& reason) {
  const auto listener = _listener.lock();
  if (!listener) return release();
  const auto session = _session;
  // A server that lets everybody in and drops them at once must not be dialled for ever.
  if (_phase == Phase::connected && _scheduler->now() - _connectedAt >= _options.lastingTime)
    _attempts = 0;
  if (_phase == Phase::connecting && !_down) listener->linkError(session, Value(reason));
  const bool again = _options.reconnects && _options.reconnectAttempts != 0;
  if (!again) return end(reason);
  if (!std::exchange(_down, true)) listener->linkDown(session, reason);
  if (_options.reconnectAttempts > 0 && _attempts >= _options.reconnectAttempts)
    return end("no attempt to reconnect is left: " + reason);
  wait();
}

void SocketLink::wait() {
  _phase = Phase::waiting;
  const auto number = ++_wait;
  _timer = _scheduler->after(
      reconnectDelay(_options, _attempts, chance()), [weak = weak_from_this(), number] {
        auto self = weak.lock();
        if (!self) return;
        const auto strand = self->_strand;
        asio::post(strand, [link = std::move(self), number] { link->retry(number); });
      });
}

void SocketLink::retry(std::uint64_t wait) {
  if (_phase != Phase::waiting || wait != _wait) return;
  const auto listener = _listener.lock();
  if (!listener) return release();
  const int remaining =
      _options.reconnectAttempts < 0 ? -1 : _options.reconnectAttempts - _attempts;
  if (_attempts < std::numeric_limits<int>::max()) ++_attempts;
  listener->linkRetrying(_session, remaining);
  open();
}

void SocketLink::end(const std::string& reason) {
  const auto session = _session;
  release();
  if (auto listener = _listener.lock()) listener->linkEnded(session, reason);
}

}  // namespace kestrova
