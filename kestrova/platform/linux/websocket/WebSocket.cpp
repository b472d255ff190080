#include <kestrova/platform/linux/websocket/WebSocket.h>
#include <kestrova/platform/linux/websocket/WebSocketFrame.h>
#include <kestrova/platform/linux/websocket/WebSocketStream.h>

#include <boost/asio/dispatch.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>

#include <algorithm>

namespace kestrova {

namespace asio = boost::asio;
using boost::system::error_code;
using std::chrono::milliseconds;

namespace {

// What stays reserved for sending; a rare long message gives its memory back.
constexpr std::size_t keptBytes = 256 * 1024;

std::unique_ptr<ByteStream> makeByteStream(const WebSocketStrand& strand, bool secure,
                                           std::shared_ptr<TlsTrust> trust) {
  if (!secure) return makeTcpStream(strand);
  return makeTlsStream(strand, trust ? std::move(trust) : makeTlsTrust());
}

}  // namespace

WebSocket::WebSocket(const WebSocketStrand& strand, WebSocketEndpoint endpoint,
                     WebSocketOptions options, std::weak_ptr<WebSocketListener> listener)
    : _strand(strand),
      _endpoint(std::move(endpoint)),
      _options(std::move(options)),
      _listener(std::move(listener)),
      _stream(std::make_unique<WebSocketStream>(
          strand, makeByteStream(strand, _endpoint.secure, _options.trust),
          _options.limits.maxIncomingBytes,
          WebSocketStream::Hooks{[this] { woken(); },
                                 [this] {
                                   _watch = later(_options.limits.closeTimeout,
                                                  &WebSocket::closingEnded);
                                 }})) {}

WebSocket::~WebSocket() = default;

// ---- One step after the other ------------------------------------------------------------------

void WebSocket::open() {
  _watch = later(_options.limits.connectTimeout, &WebSocket::openingEnded);
  _stream->below().open(_endpoint,
                        [self = shared_from_this()](const error_code& error, const char* step) {
                          if (self->passed(error, step)) self->connected();
                        });
}

void WebSocket::connected() {
  _stream->upgrade(_endpoint, _options.headers,
                   [self = shared_from_this()](const error_code& error) {
                     if (WebSocketStream::wasRefused(error) && self->_phase != Phase::closed)
                       return self->fail("the server answered with HTTP status " +
                                         std::to_string(self->_stream->status()));
                     if (!self->passed(error, "WebSocket handshake")) return;
                     self->_watch.reset();
                     self->_phase = Phase::open;
                     {
                       std::scoped_lock held(self->_lock);
                       self->_accepting = true;
                     }
                     if (const auto listener = self->_listener.lock()) listener->webSocketOpened();
                     if (self->_phase != Phase::closed) self->read();
                   });
}

void WebSocket::read() {
  if (_paused || std::exchange(_reading, true)) return;
  _stream->read([self = shared_from_this()](const error_code& error) {
    if (self->passed(error, "receiving")) self->readDone();
  });
}

void WebSocket::readDone() {
  // While it closes, whatever still comes is not wanted any more.
  if (_phase == Phase::open) {
    const auto listener = _listener.lock();
    if (!listener) return shut();
    const auto message = _stream->message();
    if (_stream->isText())
      listener->webSocketText(message);
    else
      listener->webSocketBytes(
          {reinterpret_cast<const std::uint8_t*>(message.data()), message.size()});
  }
  if (_phase == Phase::closed) return;
  _stream->release();
  _reading = false;
  read();
}

void WebSocket::resumeReading() {
  _paused = false;
  if (_phase == Phase::open || _phase == Phase::closing) read();
}

// ---- Writing -----------------------------------------------------------------------------------

WebSocket::SendResult WebSocket::send(std::string text, std::vector<Bytes> attachments) {
  return enqueue(&text, attachments);
}

WebSocket::SendResult WebSocket::send(Bytes bytes) {
  return enqueue(nullptr, {&bytes, 1});
}

WebSocket::SendResult WebSocket::enqueue(std::string* text, std::span<Bytes> bytes) {
  std::size_t size = text ? text->size() : 0;
  for (const auto& piece : bytes) size += piece.size();
  {
    std::scoped_lock held(_lock);
    if (!_accepting) return SendResult::closed;
    if (size > _options.limits.maxWaitingBytes -
                   std::min(_waitingBytes, _options.limits.maxWaitingBytes)) {
      _accepting = false;
      failLater("too much waits to be sent");
      return SendResult::full;
    }
    _waitingBytes += size;
    if (text) _outbox.push_back({false, std::move(*text), {}});
    for (auto& piece : bytes) _outbox.push_back({true, {}, std::move(piece)});
    if (std::exchange(_flushing, true)) return SendResult::queued;
  }
  asio::dispatch(_strand, [self = shared_from_this()] { self->flush(); });
  return SendResult::queued;
}

/// Turns everything that is queued into frames and sends them together.
void WebSocket::flush() {
  if (_phase == Phase::closed || _isSending) return;
  {
    std::scoped_lock held(_lock);
    _taken.swap(_outbox);
  }
  for (const auto& message : _taken) {
    const auto* bytes = reinterpret_cast<const char*>(message.bytes.data());
    const auto payload =
        message.binary ? std::string_view(bytes, message.bytes.size()) : message.text;
    _takenBytes += payload.size();
    appendFrame(_stream->gathered(), message.binary, payload);
  }
  _taken.clear();
  transmit();
}

/// The stream below has answered a ping or a close. A server that asks without reading must not
/// make the answers pile up.
void WebSocket::woken() {
  if (_stream->gathered().size() > _options.limits.maxWaitingBytes)
    failLater("the server does not read what it asks for");
  transmit();
}

void WebSocket::transmit() {
  auto& gathered = _stream->gathered();
  if (_phase == Phase::closed || _isSending || gathered.empty()) return;
  _isSending = true;
  gathered.swap(_sending);
  _progress = _options.scheduler->now();
  if (!_progressWatch)
    _progressWatch = later(_options.limits.stallTimeout, &WebSocket::checkProgress);
  _stream->below().write(
      asio::buffer(_sending), [this] { _progress = _options.scheduler->now(); },
      Transferred([self = shared_from_this()](const error_code& error, std::size_t) {
        self->_isSending = false;
        if (self->passed(error, "sending")) self->transmitted();
      }));
}

void WebSocket::transmitted() {
  _sending.clear();
  if (_sending.capacity() > keptBytes) _sending.shrink_to_fit();
  bool more = false;
  {
    std::scoped_lock held(_lock);
    _waitingBytes -= std::exchange(_takenBytes, 0);
    more = !_outbox.empty();
    _flushing = more;
  }
  if (more) return flush();
  if (!_stream->gathered().empty()) return transmit();
  if (_phase == Phase::closing) leave();
}

// ---- The end -----------------------------------------------------------------------------------

void WebSocket::close(std::uint16_t code, std::string farewell, std::shared_ptr<void> goodbye) {
  _listener.reset();
  if (_phase != Phase::open) return shut();
  _phase = Phase::closing;
  {
    std::scoped_lock held(_lock);
    _accepting = false;
  }
  _closeCode = code;
  _farewell = std::move(farewell);
  _goodbye = std::move(goodbye);
  _watch = later(_options.limits.closeTimeout, &WebSocket::closingEnded);
  resumeReading();
  flush();
  if (!_isSending) leave();
}

/// Everything is sent. A server may throw away the messages that it reads together with the
/// farewell, so the farewell waits until the answer to a ping shows that they have been read.
void WebSocket::leave() {
  if (_farewell.empty()) return goodbye();
  if (std::exchange(_asked, true)) return;
  _stream->ping(
      [this] {  // in the middle of a read: a write must not start from here
        asio::post(_strand, [self = shared_from_this()] { self->queueFarewell(); });
      },
      [self = shared_from_this()](const error_code& error) { self->passed(error, "sending"); });
}

void WebSocket::queueFarewell() {
  if (_phase != Phase::closing || _farewell.empty()) return;
  {
    std::scoped_lock held(_lock);
    _waitingBytes += _farewell.size();
    _outbox.push_back({false, std::exchange(_farewell, {}), {}});
    _flushing = true;
  }
  flush();
}

void WebSocket::goodbye() {
  if (std::exchange(_closeSent, true)) return;
  _stream->close(_closeCode, [self = shared_from_this()](const error_code&) { self->shut(); });
}

void WebSocket::abort() {
  _listener.reset();
  shut();
}

std::unique_ptr<Timer> WebSocket::later(milliseconds delay, void (WebSocket::*step)()) {
  // Held weakly: a watch that is far off must not keep a lost connection.
  return _options.scheduler->after(delay, [weak = weak_from_this(), strand = _strand, step] {
    asio::post(strand, [weak, step] {
      if (const auto self = weak.lock(); self && self->_phase != Phase::closed) (*self.*step)();
    });
  });
}

void WebSocket::openingEnded() {
  if (_phase == Phase::opening) fail("connecting took too long");
}

void WebSocket::closingEnded() {
  // Of a connection that fails, the pending read ends and tells why.
  if (_phase == Phase::closing) return shut(true);
  _stream->below().close(true);
}

void WebSocket::checkProgress() {
  _progressWatch.reset();
  if (!_isSending) return;
  const auto allowed = _options.limits.stallTimeout;
  const auto still =
      std::chrono::duration_cast<milliseconds>(_options.scheduler->now() - _progress);
  if (still >= allowed) return fail("the network takes nothing more");
  _progressWatch = later(allowed - still, &WebSocket::checkProgress);
}

bool WebSocket::passed(const error_code& error, const char* step) {
  if (_phase == Phase::closed) return false;
  if (!error) return true;
  const bool closed = WebSocketStream::isClose(error);
  if (_phase == Phase::closing) {
    // The close that is under way reads as well and ends the connection itself.
    if (!closed && error != asio::error::operation_aborted) shut();
  } else if (closed) {
    fail("the server closed the connection", _stream->closeCode());
  } else {
    fail(std::string(step) + " failed: " + _stream->below().explain(error));
  }
  return false;
}

void WebSocket::fail(const std::string& reason, std::optional<std::uint16_t> code) {
  if (_phase == Phase::closed) return;
  const auto listener = std::exchange(_listener, {}).lock();
  shut();
  if (listener) listener->webSocketClosed(reason, code);
}

void WebSocket::failLater(const char* reason) {
  asio::post(_strand, [self = shared_from_this(), reason] { self->fail(reason); });
}

void WebSocket::shut(bool reset) {
  if (std::exchange(_phase, Phase::closed) == Phase::closed) return;
  {
    std::scoped_lock held(_lock);
    _accepting = false;
    _outbox.clear();
  }
  _watch.reset();
  _progressWatch.reset();
  // What the server would not take must not stay with the kernel.
  _stream->below().close(reset || _isSending);
  _goodbye.reset();
}

}  // namespace kestrova
