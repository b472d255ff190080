#include "FrameSender.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kestrova::broadcast {
namespace {

/// Room for a large picture, so that encoding the next one needn't wait for the reader.
constexpr int sendBuffer = 1 << 20;
/// Upright, as picture files tell it.
constexpr int upright = 1;

bool isOneOfOurs(int handle) {
  ucred peer{};
  socklen_t size = sizeof(peer);
  return ::getsockopt(handle, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
         peer.uid == ::geteuid();
}

}  // namespace

FrameSender::~FrameSender() {
  if (_socket >= 0) ::close(_socket);
}

bool FrameSender::connect(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) return false;
  std::memcpy(address.sun_path, path.c_str(), path.size());
  const int handle = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (handle < 0) return false;
  ::setsockopt(handle, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof(sendBuffer));
  if (::connect(handle, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      !isOneOfOurs(handle)) {
    ::close(handle);
    return false;
  }
  _socket = handle;
  return true;
}

void FrameSender::send(const EncodedPicture& picture) {
  const auto header = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(picture.bytes.size()) +
                      "\r\nBuffer-Width: " + std::to_string(picture.width) +
                      "\r\nBuffer-Height: " + std::to_string(picture.height) +
                      "\r\nBuffer-Orientation: " + std::to_string(upright) + "\r\n\r\n";
  write({reinterpret_cast<const std::uint8_t*>(header.data()), header.size()});
  write(picture.bytes);
}

void FrameSender::write(std::span<const std::uint8_t> bytes) const {
  while (!bytes.empty()) {
    const auto sent = ::send(_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent > 0) {
      bytes = bytes.subspan(static_cast<std::size_t>(sent));
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      _ending.wait(_socket, POLLOUT, std::nullopt);
    } else if (errno != EINTR) {
      throw Closed();
    }
  }
}

void FrameSender::waitUntil(Ending::TimePoint due) const {
  // Nothing ever comes from there but the end.
  if (_ending.wait(_socket, POLLIN | POLLRDHUP, due) != 0) throw Closed();
}

}  // namespace kestrova::broadcast
