#include "Browser.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <utility>

namespace kestrova::test {
namespace {

constexpr std::chrono::seconds patienceTime{30};

}  // namespace

Browser::Browser(std::uint16_t port, const char* host, int receiveBytes)
    : _socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const timeval patience{patienceTime.count(), 0};
  ::setsockopt(_socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  if (receiveBytes > 0)
    ::setsockopt(_socket, SOL_SOCKET, SO_RCVBUF, &receiveBytes, sizeof receiveBytes);
  sockaddr_in place{};
  place.sin_family = AF_INET;
  place.sin_port = htons(port);
  ::inet_pton(AF_INET, host, &place.sin_addr);
  _connected = ::connect(_socket, reinterpret_cast<const sockaddr*>(&place), sizeof place) == 0;
}

Browser::Browser(Browser&& other) noexcept
    : _socket(std::exchange(other._socket, -1)),
      _connected(other._connected),
      _ended(other._ended),
      _comments(other._comments),
      _received(std::move(other._received)) {}

Browser Browser::visiting(const std::string& address, const std::string& below, int receiveBytes) {
  const auto port = portOf(address);
  Browser browser(port, "127.0.0.1", receiveBytes);
  browser.send(getRequest(pathOf(address) + below, "127.0.0.1:" + std::to_string(port)));
  return browser;
}

Browser::~Browser() {
  if (_socket >= 0) ::close(_socket);
}

void Browser::send(std::string_view bytes) const {
  while (!bytes.empty()) {
    const auto sent = ::send(_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) return;  // the server has had enough
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
}

bool Browser::readMore(std::size_t most) {
  std::array<char, 16384> bytes{};
  const auto count = ::recv(_socket, bytes.data(), std::min(most, bytes.size()), 0);
  if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
    throw std::runtime_error("the server says nothing");
  if (count <= 0) {
    _ended = true;
    return false;
  }
  _received.append(bytes.data(), static_cast<std::size_t>(count));
  return true;
}

std::string Browser::readUntil(std::string_view end) {
  auto found = _received.find(end);
  while (found == std::string::npos && readMore()) found = _received.find(end);
  if (found == std::string::npos) return std::exchange(_received, {});
  auto text = _received.substr(0, found);
  _received.erase(0, found + end.size());
  return text;
}

std::string Browser::readAll() {
  while (readMore()) continue;
  return std::exchange(_received, {});
}

std::size_t Browser::readSome(std::size_t bytes) {
  while (_received.size() < bytes && readMore(bytes - _received.size())) continue;
  const auto count = std::min(bytes, _received.size());
  _received.erase(0, count);
  return count;
}

std::string Browser::readHead() {
  return readUntil("\r\n\r\n");
}

PageEvent Browser::nextEvent() {
  // Comments keep the connection from falling silent.
  const auto latest = std::chrono::steady_clock::now() + patienceTime;
  for (;;) {
    if (std::chrono::steady_clock::now() > latest)
      throw std::runtime_error("the server tells nothing");
    const auto text = readUntil("\n\n");
    if (_ended && text.empty()) return {};
    if (text == ":") {
      ++_comments;
      continue;
    }
    const auto line = text.find('\n');
    if (!text.starts_with("event: ") || line == std::string::npos ||
        text.compare(line + 1, 6, "data: ") != 0)
      throw std::runtime_error("no event: " + text.substr(0, 100));
    const auto data = parseJson(text.substr(line + 7));
    if (!data || !data->is_object()) throw std::runtime_error("no JSON: " + text.substr(0, 100));
    return {text.substr(7, line - 7), data->as_object()};
  }
}

PageEvent Browser::awaitEvent(std::string_view name) {
  auto event = nextEvent();
  while (!event.name.empty() && event.name != name) event = nextEvent();
  return event;
}

std::string getRequest(std::string_view target, std::string_view host) {
  std::string text = "GET ";
  return text.append(target)
      .append(" HTTP/1.1\r\nHost: ")
      .append(host)
      .append("\r\nAccept: */*\r\n\r\n");
}

std::uint16_t portOf(const std::string& address) {
  const auto colon = address.rfind(':');
  return static_cast<std::uint16_t>(std::stoi(address.substr(colon + 1)));
}

std::string pathOf(const std::string& address) {
  return address.substr(address.find('/', address.rfind(':')));
}

}  // namespace kestrova::test
