#include <kestrova/platform/linux/socketio/EngineConnection.h>
#include <kestrova/platform/linux/socketio/OutgoingStream.h>
#include <kestrova/platform/linux/socketio/WebSocketFrame.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <openssl/x509_vfy.h>

#include <optional>
#include <utility>

namespace kestrova {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = boost::beast::websocket;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

using Socket = tcp::socket;
using Tls = asio::ssl::stream<Socket>;  // one buffer at a time is all that is written to it
using Plain = websocket::stream<OutgoingStream<Socket>, false>;
using Secure = websocket::stream<OutgoingStream<Tls>, false>;

// What stays reserved for sending; a rare long message gives its memory back.
constexpr std::size_t keptBytes = 256 * 1024;

template <class Stream>
void configure(Stream& stream, std::size_t maxIncomingBytes) {
  stream.read_message_max(maxIncomingBytes);
  stream.set_option(websocket::stream_base::decorator([](websocket::request_type& request) {
    request.set(beast::http::field::user_agent, "KestrovaRTC");
  }));
}

/// Makes OpenSSL check that the certificate is the endpoint's own; names are sent in clear as SNI.
bool expectHost(SSL* ssl, const Endpoint& endpoint) {
  if (endpoint.hostIsAddress)
    return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), endpoint.host.c_str()) == 1;
  return SSL_set1_host(ssl, endpoint.host.c_str()) == 1 &&
         SSL_set_tlsext_host_name(ssl, endpoint.host.c_str()) == 1;
}

}  // namespace

struct EngineConnection::Transport {
  Transport(const Strand& strand, std::shared_ptr<asio::ssl::context> context,
            std::size_t maxIncomingBytes)
      : tls(std::move(context)), resolver(strand), timer(strand) {
    if (tls)
      configure(secure.emplace(strand, *tls), maxIncomingBytes);
    else
      configure(plain.emplace(strand), maxIncomingBytes);
  }

  template <class F>
  decltype(auto) visit(F&& f) {
    return secure ? f(*secure) : f(*plain);
  }
  Socket& socket() {
    return secure ? secure->next_layer().next_layer().next_layer()
                  : plain->next_layer().next_layer();
  }
  Tls& encryption() { return secure->next_layer().next_layer(); }
  std::string& gathered() {
    return secure ? secure->next_layer().gathered : plain->next_layer().gathered;
  }

  std::shared_ptr<asio::ssl::context> tls;
  tcp::resolver resolver;
  asio::steady_timer timer;
  std::optional<Plain> plain;
  std::optional<Secure> secure;
  tcp::resolver::results_type addresses;
  websocket::response_type answer;
  beast::flat_buffer incoming;
  std::string sending;
};

EngineConnection::EngineConnection(const Strand& strand, Endpoint endpoint,
                                   std::shared_ptr<asio::ssl::context> tls, EngineLimits limits,
                                   std::weak_ptr<EngineListener> listener)
    : _strand(strand),
      _endpoint(std::move(endpoint)),
      _limits(limits),
      _listener(std::move(listener)),
      _transport(std::make_unique<Transport>(strand, _endpoint.secure ? std::move(tls) : nullptr,
                                             limits.maxIncomingBytes)) {
  _transport->visit([this](auto& stream) { stream.next_layer().wake = [this] { transmit(); }; });
}

EngineConnection::~EngineConnection() = default;

// ---- One step after the other ------------------------------------------------------------------

void EngineConnection::start() {
  watch(_limits.connectTimeout);
  _transport->resolver.async_resolve(
      _endpoint.host, _endpoint.port,
      [self = shared_from_this()](error_code error, tcp::resolver::results_type addresses) {
        if (!self->passed(error, "name look-up")) return;
        self->_transport->addresses = std::move(addresses);
        self->resolved();
      });
}

void EngineConnection::resolved() {
  asio::async_connect(_transport->socket(), _transport->addresses,
                      [self = shared_from_this()](error_code error, const tcp::endpoint&) {
                        if (self->passed(error, "connection")) self->connected();
                      });
}

void EngineConnection::connected() {
  error_code ignored;
  _transport->socket().set_option(tcp::no_delay(true), ignored);
  if (!_transport->secure) return encrypted();
  auto& tls = _transport->encryption();
  if (!expectHost(tls.native_handle(), _endpoint)) return fail("TLS: the host has no usable name");
  tls.async_handshake(asio::ssl::stream_base::client,
                      [self = shared_from_this()](error_code error) {
                        if (self->passed(error, "TLS handshake")) self->encrypted();
                      });
}

void EngineConnection::encrypted() {
  auto done = [self = shared_from_this()](error_code error) {
    if (error == websocket::error::upgrade_declined && self->_phase != Phase::closed)
      return self->fail("the server answered with HTTP status " +
                        std::to_string(self->_transport->answer.result_int()));
    if (self->passed(error, "WebSocket handshake")) self->upgraded();
  };
  _transport->visit([&](auto& stream) {
    stream.async_handshake(_transport->answer, _endpoint.authority, _endpoint.target,
                           std::move(done));
  });
}

void EngineConnection::upgraded() {
  read();
}

// ---- Reading -----------------------------------------------------------------------------------

void EngineConnection::read() {
  auto done = [self = shared_from_this()](error_code error, std::size_t size) {
    if (self->passed(error, "receiving")) self->readDone(size);
  };
  _transport->visit(
      [&](auto& stream) { stream.async_read(_transport->incoming, std::move(done)); });
}

void EngineConnection::readDone(std::size_t size) {
  _lastHeard = std::chrono::steady_clock::now();
  const auto data = _transport->incoming.cdata();
  const bool isText = _transport->visit([](auto& stream) { return stream.got_text(); });
  if (_phase == Phase::closing) {
    // Whatever still comes is not wanted any more.
  } else if (isText) {
    handleText({static_cast<const char*>(data.data()), size});
  } else if (_phase == Phase::open) {
    if (auto listener = _listener.lock())
      listener->engineBytes({static_cast<const std::uint8_t*>(data.data()), size});
  } else {
    fail("the server sent bytes before its handshake");
  }
  _transport->incoming.consume(size);
  if (_phase != Phase::closed) read();
}

void EngineConnection::handleText(std::string_view frame) {
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
      return queue({false, std::string("3").append(packet->payload), {}});
    case EngineIOType::message:
      if (auto listener = _listener.lock()) listener->engineText(packet->payload);
      return;
    case EngineIOType::pong:
    case EngineIOType::upgrade:
    case EngineIOType::noop:
      return;
  }
}

void EngineConnection::handleOpen(std::string_view payload) {
  if (_phase != Phase::opening) return fail("the server sent a second handshake");
  const auto handshake = decodeHandshake(payload, _limits.pings);
  if (!handshake) return fail("the server's handshake makes no sense");
  _handshake = *handshake;
  _phase = Phase::open;
  {
    std::scoped_lock held(_lock);
    _accepting = true;
    _maxPayload = _handshake.maxPayload;
  }
  if (auto listener = _listener.lock()) listener->engineOpened();
}

// ---- Writing -----------------------------------------------------------------------------------

EngineConnection::SendResult EngineConnection::send(EncodedPacket packet) {
  {
    std::scoped_lock held(_lock);
    if (!_accepting) return SendResult::closed;
    if (_maxPayload != 0) {
      if (packet.text.size() > _maxPayload) return SendResult::tooLarge;
      for (const auto& bytes : packet.attachments)
        if (bytes.size() > _maxPayload) return SendResult::tooLarge;
    }
    _outbox.push_back({false, std::move(packet.text), {}});
    for (auto& bytes : packet.attachments) _outbox.push_back({true, {}, std::move(bytes)});
    if (std::exchange(_flushing, true)) return SendResult::queued;
  }
  schedule();
  return SendResult::queued;
}

void EngineConnection::queue(Frame frame) {
  {
    std::scoped_lock held(_lock);
    _outbox.push_back(std::move(frame));
    if (std::exchange(_flushing, true)) return;
  }
  schedule();
}

void EngineConnection::schedule() {
  asio::dispatch(_strand, [self = shared_from_this()] { self->flush(); });
}

/// Turns everything that is queued into frames and sends them together.
void EngineConnection::flush() {
  if (_phase == Phase::closed || _sending) return;
  std::vector<Frame> frames;
  {
    std::scoped_lock held(_lock);
    frames.swap(_outbox);
  }
  for (const auto& frame : frames) {
    const auto* bytes = reinterpret_cast<const char*>(frame.bytes.data());
    const std::string_view payload =
        frame.binary ? std::string_view(bytes, frame.bytes.size()) : std::string_view(frame.text);
    appendFrame(_transport->gathered(), frame.binary, payload);
  }
  transmit();
}

void EngineConnection::transmit() {
  auto& gathered = _transport->gathered();
  if (_phase == Phase::closed || _sending || gathered.empty()) return;
  _sending = true;
  gathered.swap(_transport->sending);
  auto done = [self = shared_from_this()](error_code error, std::size_t) {
    self->_sending = false;
    if (self->passed(error, "sending")) self->transmitted();
  };
  _transport->visit([&](auto& stream) {
    asio::async_write(stream.next_layer().next_layer(), asio::buffer(_transport->sending),
                      std::move(done));
  });
}

void EngineConnection::transmitted() {
  auto& sent = _transport->sending;
  sent.clear();
  if (sent.capacity() > keptBytes) sent.shrink_to_fit();
  bool more = false;
  {
    std::scoped_lock held(_lock);
    more = !_outbox.empty();
    _flushing = more;
  }
  if (more) return flush();
  if (!_transport->gathered().empty()) return transmit();
  if (_phase == Phase::closing) leave();
}

// ---- The end -----------------------------------------------------------------------------------

void EngineConnection::admitted() {
  _admitted = true;
  _lastHeard = std::chrono::steady_clock::now();
  watch(_handshake.pingInterval + _handshake.pingTimeout);
}

void EngineConnection::watch(std::chrono::milliseconds time) {
  _transport->timer.expires_after(time);
  // Held weakly: a watch that is far off must not keep a lost connection.
  _transport->timer.async_wait([weak = weak_from_this()](error_code error) {
    if (auto self = weak.lock(); self && !error) self->watchEnded();
  });
}

void EngineConnection::watchEnded() {
  if (_phase == Phase::closed) return;
  if (_phase == Phase::closing) {
    // Resets the connection: what the server would not take must not stay with the kernel.
    error_code ignored;
    _transport->socket().set_option(asio::socket_base::linger(true, 0), ignored);
    return shut();
  }
  if (!_admitted) return fail("connecting took too long");
  const auto allowed = _handshake.pingInterval + _handshake.pingTimeout;
  const auto silence = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - _lastHeard);
  if (silence >= allowed) return fail("ping timeout");
  watch(allowed - silence);
}

void EngineConnection::close(EncodedPacket last) {
  _listener.reset();
  if (_phase != Phase::open) return shut();
  _phase = Phase::closing;
  {
    std::scoped_lock held(_lock);
    _accepting = false;
  }
  _farewell = std::move(last.text);
  watch(_limits.closeTimeout);
  flush();
  if (!_sending) leave();
}

/// Everything is sent. The reference server throws away the events that it reads together with the
/// farewell, so the farewell waits until the answer to a ping shows that they have been read.
void EngineConnection::leave() {
  if (!std::exchange(_asked, true)) {
    _transport->visit([&](auto& stream) {
      stream.control_callback([this](websocket::frame_type kind, beast::string_view) {
        if (kind == websocket::frame_type::pong) answered();
      });
      stream.async_ping(
          {}, [self = shared_from_this()](error_code error) { self->passed(error, "sending"); });
    });
  } else if (_farewell.empty()) {
    goodbye();
  }
}

/// In the middle of a read: a write must not start from here.
void EngineConnection::answered() {
  asio::post(_strand, [self = shared_from_this()] {
    if (self->_phase != Phase::closing || self->_farewell.empty()) return;
    self->queue({false, std::exchange(self->_farewell, {}), {}});
  });
}

void EngineConnection::goodbye() {
  if (std::exchange(_closeSent, true)) return;
  _transport->visit([&](auto& stream) {
    stream.async_close(websocket::close_code::normal,
                       [self = shared_from_this()](error_code) { self->shut(); });
  });
}

void EngineConnection::abort() {
  _listener.reset();
  shut();
}

bool EngineConnection::passed(const error_code& error, const char* step) {
  if (_phase == Phase::closed) return false;
  if (!error) return true;
  if (_phase == Phase::closing) {
    // The close that is under way reads as well and ends the connection itself.
    if (error != websocket::error::closed && error != asio::error::operation_aborted) shut();
    return false;
  }
  std::string cause = error.message();
  if (_transport->secure) {
    const long verdict = SSL_get_verify_result(_transport->encryption().native_handle());
    if (verdict != X509_V_OK)
      cause = std::string("the certificate was refused: ") + X509_verify_cert_error_string(verdict);
  }
  fail(std::string(step) + " failed: " + cause);
  return false;
}

void EngineConnection::fail(const std::string& reason) {
  if (_phase == Phase::closed) return;
  const auto listener = std::exchange(_listener, {}).lock();
  shut();
  if (listener) listener->engineClosed(reason);
}

void EngineConnection::shut() {
  if (std::exchange(_phase, Phase::closed) == Phase::closed) return;
  {
    std::scoped_lock held(_lock);
    _accepting = false;
    _outbox.clear();
  }
  _transport->timer.cancel();
  _transport->resolver.cancel();
  error_code ignored;
  _transport->socket().close(ignored);
}

}  // namespace kestrova
