#include <kestrova/platform/linux/socketio/EngineConnection.h>

#include <boost/asio/post.hpp>

#include <utility>

namespace kestrova {

using std::chrono::milliseconds;

EngineConnection::EngineConnection(const WebSocketStrand& strand, EngineOptions options,
                                   std::weak_ptr<EngineListener> listener)
    : _strand(strand), _options(std::move(options)), _listener(std::move(listener)) {}

void EngineConnection::start(WebSocketEndpoint endpoint) {
  _socket =
      std::make_shared<WebSocket>(_strand, std::move(endpoint), _options.socket, weak_from_this());
  watch(_options.socket.limits.connectTimeout);
  _socket->open();
}

// ---- From the server ---------------------------------------------------------------------------

void EngineConnection::webSocketText(std::string_view frame) {
  _lastHeard = _options.socket.scheduler->now();
  const auto packet = decodeEngineIO(frame);
  if (!packet) return fail("the server does not speak Engine.IO");
  if (_phase == Phase::opening && packet->type != EngineIOType::open)
    return fail("the server sent no handshake");
  switch (packet->type) {
    case EngineIOType::open:
      return handleOpen(packet->payload);
    case EngineIOType::close:
      return fail("the server closed the connection");
    case EngineIOType::ping:
      _socket->send(std::string("3").append(packet->payload));
      return;
    case EngineIOType::message:
      if (const auto listener = _listener.lock()) listener->engineText(packet->payload);
      return;
    case EngineIOType::pong:
    case EngineIOType::upgrade:
    case EngineIOType::noop:
      return;
  }
}

void EngineConnection::webSocketBytes(std::span<const std::uint8_t> message) {
  _lastHeard = _options.socket.scheduler->now();
  if (_phase != Phase::open) return fail("the server sent bytes before its handshake");
  if (const auto listener = _listener.lock()) listener->engineBytes(message);
}

void EngineConnection::webSocketClosed(const std::string& reason, std::optional<std::uint16_t>) {
  fail(reason);
}

void EngineConnection::handleOpen(std::string_view payload) {
  if (_phase != Phase::opening) return fail("the server sent a second handshake");
  const auto handshake = decodeHandshake(payload, _options.pings);
  if (!handshake) return fail("the server's handshake makes no sense");
  _handshake = *handshake;
  _phase = Phase::open;
  _maxPayload = _handshake.maxPayload;
  if (const auto listener = _listener.lock()) listener->engineOpened();
}

EngineConnection::SendResult EngineConnection::send(EncodedPacket packet) {
  if (const std::size_t most = _maxPayload; most != 0) {
    if (packet.text.size() > most) return SendResult::tooLarge;
    for (const auto& bytes : packet.attachments)
      if (bytes.size() > most) return SendResult::tooLarge;
  }
  const auto result = _socket->send(std::move(packet.text), std::move(packet.attachments));
  return result == WebSocket::SendResult::queued ? SendResult::queued : SendResult::closed;
}

// ---- The end -----------------------------------------------------------------------------------

void EngineConnection::admitted() {
  _admitted = true;
  _lastHeard = _options.socket.scheduler->now();
  watch(_handshake.pingInterval + _handshake.pingTimeout);
}

void EngineConnection::watch(milliseconds time) {
  _watch = _options.socket.scheduler->after(time, [weak = weak_from_this(), strand = _strand] {
    boost::asio::post(strand, [weak] {
      if (const auto self = weak.lock()) self->watchEnded();
    });
  });
}

void EngineConnection::watchEnded() {
  if (_phase == Phase::closed) return;
  if (!_admitted) return fail("connecting took too long");
  const auto allowed = _handshake.pingInterval + _handshake.pingTimeout;
  const auto silence =
      std::chrono::duration_cast<milliseconds>(_options.socket.scheduler->now() - _lastHeard);
  if (silence >= allowed) return fail("ping timeout");
  watch(allowed - silence);
}

void EngineConnection::close(EncodedPacket last, std::shared_ptr<void> goodbye) {
  _listener.reset();
  _watch.reset();
  if (std::exchange(_phase, Phase::closed) == Phase::open)
    _socket->close(WebSocket::normalClosure, std::move(last.text), std::move(goodbye));
  else
    _socket->abort();
}

void EngineConnection::fail(const std::string& reason) {
  if (std::exchange(_phase, Phase::closed) == Phase::closed) return;
  _watch.reset();
  _socket->abort();
  if (const auto listener = std::exchange(_listener, {}).lock()) listener->engineClosed(reason);
}

}  // namespace kestrova
