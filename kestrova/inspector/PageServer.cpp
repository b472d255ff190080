#include <kestrova/inspector/PageServer.h>

#include <boost/system/system_error.hpp>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

namespace kestrova::inspector {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

// Browsers open a few for each page, and close them again.
constexpr std::size_t mostConnections = 32;
// The system's own grows to megabytes, of which a third must be read before a page's progress
// shows.
constexpr int sendBufferBytes = 128 * 1024;
// When the process has no descriptor left, and the next attempt would fail at once.
constexpr std::chrono::milliseconds acceptPause{100};

std::string randomKey() {
  std::array<unsigned char, 16> bytes{};
  if (getentropy(bytes.data(), bytes.size()) != 0)
    throw std::system_error(errno, std::generic_category(), "no key for the inspector");
  constexpr std::string_view digits = "0123456789abcdef";
  std::string key;
  for (const auto byte : bytes) {
    key += digits[byte >> 4];
    key += digits[byte & 0x0F];
  }
  return key;
}

/// Takes as long for a key that is nearly right as for any other.
bool isSame(std::string_view given, std::string_view secret) {
  if (given.size() != secret.size()) return false;
  unsigned difference = 0;
  for (std::size_t i = 0; i < secret.size(); ++i)
    difference |= static_cast<unsigned char>(given[i]) ^ static_cast<unsigned char>(secret[i]);
  return difference == 0;
}

error_code lastError() {
  return {errno, boost::system::system_category()};
}

std::string refusal(std::string_view status) {
  return httpHead(status, "Content-Length: 0\r\n");
}

std::string message(std::string_view event, std::string_view data) {
  std::string text;
  text.reserve(event.size() + data.size() + 16);
  return text.append("event: ").append(event).append("\ndata: ").append(data).append("\n\n");
}

}  // namespace

PageServer::PageServer(asio::io_context& loop, Options options, std::string_view page,
                       Greeting greeting)
    : _loop(loop),
      _options(options),
      _page(page),
      _greeting(std::move(greeting)),
      _acceptor(loop),
      _retry(loop),
      _keepAlive(loop) {
  try {
    listen();
  } catch (const boost::system::system_error& error) {
    throw std::system_error(
        static_cast<std::error_code>(error.code()),
        "the inspector can't listen on 127.0.0.1:" + std::to_string(_options.port));
  }
  _path = "/" + randomKey() + "/";
  _port = std::to_string(_acceptor.local_endpoint().port());
  _address = "http://127.0.0.1:" + _port + _path;
  accept();
}

/// A program that the application starts, on whichever thread, shall keep neither the port nor a
/// connection: sockets are closed at exec from their first moment on, which asio's own are not.
void PageServer::listen() {
  const tcp::endpoint endpoint(asio::ip::address_v4::loopback(), _options.port);
  const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) throw boost::system::system_error(lastError());
  _acceptor.assign(endpoint.protocol(), descriptor);
  _acceptor.set_option(tcp::acceptor::reuse_address(true));
  _acceptor.bind(endpoint);
  _acceptor.listen();
  _acceptor.non_blocking(true);
}

// ---- Connections -------------------------------------------------------------------------------

void PageServer::accept() {
  _acceptor.async_wait(tcp::acceptor::wait_read, [this](const error_code&) {
    if (_acceptor.is_open()) acceptOne();
  });
}

void PageServer::acceptOne() {
  const int descriptor = ::accept4(_acceptor.native_handle(), nullptr, nullptr, SOCK_CLOEXEC);
  if (descriptor >= 0) {
    accept();
    return accepted(descriptor);
  }
  if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) return accept();
  _retry.expires_after(acceptPause);
  _retry.async_wait([this](const error_code& cancelled) {
    if (!cancelled) accept();
  });
}

void PageServer::accepted(int descriptor) {
  tcp::socket socket(_loop);
  error_code error, ignored;
  socket.assign(tcp::v4(), descriptor, error);
  if (error) ::close(descriptor);
  if (error || !makeRoom()) return;
  socket.set_option(tcp::no_delay(true), ignored);
  socket.set_option(tcp::socket::send_buffer_size(sendBufferBytes), ignored);
  const auto connection =
      std::make_shared<PageConnection>(std::move(socket), _options.limits, *this);
  _connections.push_back(connection);
  connection->start();
}

/// Anybody on this machine can connect. Who hasn't shown the key goes first, the oldest before the
/// others: a browser shows it at once.
bool PageServer::makeRoom() {
  if (_connections.size() < mostConnections) return true;
  const auto found = std::find_if(_connections.begin(), _connections.end(),
                                  [](const auto& each) { return !each->hasShownKey(); });
  if (found == _connections.end()) return false;
  const auto oldest = *found;
  oldest->close();
  return true;
}

void PageServer::gone(const PageConnection& connection) {
  const auto found = std::find_if(_connections.begin(), _connections.end(),
                                  [&](const auto& each) { return each.get() == &connection; });
  if (found == _connections.end()) return;
  if (connection.isStream() && --_pages == 0) _keepAlive.cancel();
  _connections.erase(found);
  if (_connections.empty() && _finished) std::exchange(_finished, nullptr)();
}

// ---- Requests ----------------------------------------------------------------------------------

/// A name that was made to lead here isn't one that this place has.
bool PageServer::isOwnHost(std::string_view host) const {
  return host == "127.0.0.1:" + _port || host == "localhost:" + _port;
}

void PageServer::asked(PageConnection& connection, const HttpRequest& request) {
  if (!isOwnHost(request.host)) return connection.answer(refusal("403 Forbidden"));
  const bool page = isSame(request.target, _path);
  const bool events = isSame(request.target, _path + "events");
  if (!request.isGet || (!page && !events)) return connection.answer(refusal("404 Not Found"));
  connection.showedKey();
  if (events) return openStream(connection);
  connection.answer(
      httpHead("200 OK", "Content-Type: text/html; charset=utf-8\r\nContent-Length: " +
                             std::to_string(_page.size()) + "\r\n")
          .append(_page));
}

void PageServer::openStream(PageConnection& connection) {
  if (_pages >= _options.mostPages) return connection.answer(refusal("503 Service Unavailable"));
  // Before it counts as a page: what the greeting brings to the others is in it already.
  auto greeting =
      httpHead("200 OK", "Content-Type: text/event-stream\r\n") + message("snapshot", _greeting());
  if (greeting.size() > _options.limits.waitingBytes)
    return connection.answer(refusal("503 Service Unavailable"));
  if (_pages++ == 0) keepAlive();
  connection.stream(std::move(greeting));
}

void PageServer::keepAlive() {
  _keepAlive.expires_after(_options.keepAlive);
  _keepAlive.async_wait([this](const error_code& cancelled) {
    if (cancelled || _pages == 0) return;
    keepAlive();
    broadcast(":\n\n");
  });
}

void PageServer::send(std::string_view event, std::string_view data) {
  broadcast(message(event, data));
}

void PageServer::broadcast(std::string text) {
  const auto shared = std::make_shared<const std::string>(std::move(text));
  const auto all = _connections;  // who is cut off leaves the list
  for (const auto& connection : all) connection->send(shared);
}

// ---- The end -----------------------------------------------------------------------------------

void PageServer::finish(std::function<void()> done) {
  error_code ignored;
  _acceptor.close(ignored);
  _retry.cancel();
  _keepAlive.cancel();
  if (_connections.empty()) return done();
  _finished = std::move(done);
  const auto all = _connections;
  for (const auto& connection : all) connection->finish();
}

void PageServer::close() {
  const auto all = _connections;
  for (const auto& connection : all) connection->close();
}

}  // namespace kestrova::inspector
