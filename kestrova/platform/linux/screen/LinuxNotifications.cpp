#include <kestrova/platform/linux/screen/LinuxNotifications.h>

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/strand.hpp>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>

namespace kestrova {
namespace {

constexpr std::string_view observerPrefix = "notify.";
constexpr std::size_t longestName = 256;

std::optional<sockaddr_un> addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) return std::nullopt;
  std::memcpy(address.sun_path, path.c_str(), path.size());
  return address;
}

int datagramSocket() {
  return ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

/// Hears datagrams, and says which name each of them bore.
class Ear : public std::enable_shared_from_this<Ear> {
public:
  Ear(const boost::asio::any_io_executor& network, int handle, std::string name,
      std::function<void()> handler)
      : _socket(boost::asio::make_strand(network), handle),
        _name(std::move(name)),
        _handler(std::move(handler)) {}

  void listen() {
    _socket.async_wait(_socket.wait_read, [self = shared_from_this()](const auto& error) {
      if (error || self->_hasEnded) return;
      self->readAll();
      self->listen();
    });
  }
  void end() {
    _hasEnded = true;
    boost::asio::post(_socket.get_executor(), [self = shared_from_this()] {
      boost::system::error_code ignored;
      self->_socket.close(ignored);
    });
  }

private:
  void readAll() {
    while (!_hasEnded) {
      const auto name = readOne();
      if (!name) return;
      if (*name == _name && !_hasEnded) _handler();
    }
  }

  /// Nothing when there is none; empty for one that is not heeded.
  std::optional<std::string> readOne() {
    std::array<char, longestName> text{};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control{};
    iovec part{text.data(), text.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const auto size = ::recvmsg(_socket.native_handle(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (size < 0) return std::nullopt;
    const auto* header = CMSG_FIRSTHDR(&message);
    if (!header || header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_CREDENTIALS)
      return std::string();
    ucred sender{};
    std::memcpy(&sender, CMSG_DATA(header), sizeof(sender));
    if (sender.uid != ::geteuid()) return std::string();
    return std::string(text.data(), static_cast<std::size_t>(size));
  }

  boost::asio::posix::stream_descriptor _socket;
  const std::string _name;
  const std::function<void()> _handler;
  std::atomic<bool> _hasEnded{false};
};

class EarHolder final : public CrossProcessNotifications::Observer {
public:
  EarHolder(std::shared_ptr<Ear> ear, std::string path)
      : _ear(std::move(ear)), _path(std::move(path)) {}
  ~EarHolder() override {
    _ear->end();
    ::unlink(_path.c_str());
  }

private:
  const std::shared_ptr<Ear> _ear;
  const std::string _path;
};

class LinuxNotifications final : public CrossProcessNotifications {
public:
  explicit LinuxNotifications(boost::asio::any_io_executor network)
      : _network(std::move(network)) {}

  std::shared_ptr<Observer> addObserver(const std::string& container, std::string name,
                                        std::function<void()> handler) override {
    static std::atomic<unsigned> count{0};
    const auto path = container + "/" + std::string(observerPrefix) + std::to_string(::getpid()) +
                      "." + std::to_string(++count);
    const auto address = addressOf(path);
    const int handle = address ? datagramSocket() : -1;
    if (handle < 0) return nullptr;
    const int on = 1;
    ::unlink(path.c_str());  // of a process that had this number before
    if (::setsockopt(handle, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) != 0 ||
        ::bind(handle, reinterpret_cast<const sockaddr*>(&*address), sizeof(*address)) != 0) {
      ::close(handle);
      return nullptr;
    }
    auto ear = std::make_shared<Ear>(_network, handle, std::move(name), std::move(handler));
    ear->listen();
    return std::make_shared<EarHolder>(std::move(ear), path);
  }

  void post(const std::string& container, const std::string& name) override {
    const int handle = datagramSocket();
    if (handle < 0) return;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(container, error)) {
      if (!entry.path().filename().string().starts_with(observerPrefix)) continue;
      const auto address = addressOf(entry.path().string());
      if (!address) continue;
      const auto sent = ::sendto(handle, name.data(), name.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                                 reinterpret_cast<const sockaddr*>(&*address), sizeof(*address));
      // Its process ended without removing it.
      if (sent < 0 && errno == ECONNREFUSED) ::unlink(entry.path().c_str());
    }
    ::close(handle);
  }

private:
  const boost::asio::any_io_executor _network;
};

}  // namespace

std::shared_ptr<CrossProcessNotifications> makeNotifications(boost::asio::any_io_executor network) {
  return std::make_shared<LinuxNotifications>(std::move(network));
}

}  // namespace kestrova
