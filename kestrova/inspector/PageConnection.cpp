#include <kestrova/inspector/PageConnection.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/write.hpp>

#include <algorithm>
#include <utility>

namespace kestrova::inspector {

using boost::system::error_code;

namespace {

// As many texts, and bytes, as one system call takes along gladly.
constexpr std::size_t mostTogether = 64;
constexpr std::size_t mostAtOnce = 64 * 1024;

}  // namespace

PageConnection::PageConnection(boost::asio::ip::tcp::socket socket, Limits limits, Server& server)
    : _socket(std::move(socket)),
      _deadline(_socket.get_executor()),
      _limits(limits),
      _server(server) {}

void PageConnection::start() {
  _deadline.expires_after(_limits.request);
  _deadline.async_wait([self = shared_from_this()](const error_code& error) {
    if (!error) self->close();
  });
  readRequest(_socket, [self = shared_from_this()](const std::optional<HttpRequest>& request) {
    if (self->_state != State::reading) return;
    if (request)
      self->_server.asked(*self, *request);
    else
      self->close();
  });
}

void PageConnection::answer(std::string text) {
  if (_state != State::reading) return;
  _state = State::answering;
  readOn();
  put(std::make_shared<const std::string>(std::move(text)));
}

void PageConnection::stream(std::string text) {
  if (_state != State::reading) return;
  _state = State::streaming;
  _isStream = true;
  readOn();
  put(std::make_shared<const std::string>(std::move(text)));
  watchProgress();
}

void PageConnection::send(const Message& message) {
  if (_state != State::streaming) return;
  if (_waitingBytes + message->size() > _limits.waitingBytes) return close();
  put(message);
}

void PageConnection::put(Message text) {
  _waitingBytes += text->size();
  _waiting.push_back(std::move(text));
  write();
}

void PageConnection::write() {
  if (!_writing.empty() || _waiting.empty()) return;
  const auto count = static_cast<std::ptrdiff_t>(std::min(_waiting.size(), mostTogether));
  _writing.assign(_waiting.begin(), _waiting.begin() + count);
  _waiting.erase(_waiting.begin(), _waiting.begin() + count);
  std::vector<boost::asio::const_buffer> buffers;
  buffers.reserve(_writing.size());
  for (const auto& text : _writing) buffers.push_back(boost::asio::buffer(*text));
  boost::asio::async_write(
      _socket, buffers,
      // Asked at the beginning, and whenever a part was taken.
      [self = shared_from_this()](const error_code& error, std::size_t) {
        self->_progress = std::chrono::steady_clock::now();
        return error ? 0 : mostAtOnce;
      },
      [self = shared_from_this()](const error_code& error, std::size_t) {
        if (self->_state == State::closed) return;
        if (error)
          self->close();
        else
          self->written();
      });
}

/// Cuts off a page that has stopped reading. One timer for all that is written, as there is much.
void PageConnection::watchProgress() {
  using Clock = std::chrono::steady_clock;
  const auto since = _writing.empty() ? Clock::now() : _progress;
  _deadline.expires_at(since + _limits.standstill);
  _deadline.async_wait([self = shared_from_this()](const error_code& error) {
    if (error || self->_state == State::closed) return;
    const bool stands =
        !self->_writing.empty() && Clock::now() >= self->_progress + self->_limits.standstill;
    if (stands)
      self->close();
    else
      self->watchProgress();
  });
}

void PageConnection::written() {
  for (const auto& text : _writing) _waitingBytes -= text->size();
  _writing.clear();
  if (!_waiting.empty()) return write();
  if (_state == State::streaming) return;
  if (_state == State::finishing) return close();
  // What was said after the request is still to be read: closing before could take the answer away
  // from those who said it. They close once they have it.
  error_code ignored;
  _socket.shutdown(boost::asio::ip::tcp::socket::shutdown_send, ignored);
}

/// Until the other side closes. Whatever it says meanwhile is not wanted.
void PageConnection::readOn() {
  _socket.async_read_some(boost::asio::buffer(_unwanted),
                          [self = shared_from_this()](const error_code& error, std::size_t) {
                            if (self->_state == State::closed) return;
                            if (error || self->_state == State::streaming)
                              self->close();
                            else
                              self->readOn();
                          });
}

void PageConnection::finish() {
  if (_state == State::reading) return close();
  if (_state != State::streaming) return;
  _state = State::finishing;
  if (_writing.empty()) written();
}

void PageConnection::close() {
  if (std::exchange(_state, State::closed) == State::closed) return;
  _deadline.cancel();
  error_code ignored;
  _socket.close(ignored);
  _waiting.clear();
  _server.gone(*this);
}

}  // namespace kestrova::inspector
