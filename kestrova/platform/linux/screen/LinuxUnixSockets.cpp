#include <kestrova/platform/linux/screen/LinuxUnixSockets.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace kestrova {
namespace {

/// How long a listening socket rests that can't give its client for want of something.
constexpr auto restAfterFailure = std::chrono::milliseconds(50);

class LinuxSocketLoop final : public SocketLoop {
public:
  explicit LinuxSocketLoop(int wake) : _state(std::make_shared<State>(wake)) {
    _thread = std::thread([state = _state] { run(*state); });
  }
  ~LinuxSocketLoop() override {
    {
      std::scoped_lock held(_state->lock);
      _state->isEnding = true;
    }
    _state->wakeUp();
    if (_thread.get_id() == std::this_thread::get_id())
      _thread.detach();
    else
      _thread.join();
  }

  void watch(int handle, std::function<void()> readable) override {
    auto work = std::make_shared<std::function<void()>>(std::move(readable));
    {
      std::scoped_lock held(_state->lock);
      _state->watched[handle].swap(work);
    }
    _state->wakeUp();
  }
  void release(int handle) override {
    Call gone;
    {
      std::scoped_lock held(_state->lock);
      if (const auto found = _state->watched.find(handle); found != _state->watched.end()) {
        gone = std::move(found->second);
        _state->watched.erase(found);
      }
      _state->leaving.push_back(handle);
    }
    _state->wakeUp();
  }
  void whenQuiet(std::chrono::milliseconds interval, std::function<void()> work) override {
    auto call = std::make_shared<std::function<void()>>(std::move(work));
    {
      std::scoped_lock held(_state->lock);
      _state->quietTime = interval;
      _state->whenQuiet.swap(call);
    }
    _state->wakeUp();
  }

private:
  using Call = std::shared_ptr<std::function<void()>>;

  /// The thread keeps it: a loop may go while one of its calls runs.
  struct State {
    explicit State(int handle) : wake(handle) {}
    ~State() {
      closeLeaving();
      ::close(wake);
    }
    void wakeUp() const { ::eventfd_write(wake, 1); }
    void closeLeaving() {
      for (const int handle : std::exchange(leaving, {})) ::close(handle);
    }

    const int wake;
    std::mutex lock;
    // Under lock:
    bool isEnding = false;
    std::map<int, Call> watched;
    std::vector<int> leaving;  // no call for them is running once the thread looks here
    std::chrono::milliseconds quietTime{-1};
    Call whenQuiet;
  };

  static void run(State& state) {
    std::vector<pollfd> polled;
    for (;;) {
      int wait = -1;
      {
        std::scoped_lock held(state.lock);
        state.closeLeaving();
        if (state.isEnding) return;
        polled.assign(1, {state.wake, POLLIN, 0});
        for (const auto& [handle, call] : state.watched) polled.push_back({handle, POLLIN, 0});
        if (state.whenQuiet) wait = static_cast<int>(state.quietTime.count());
      }
      const int ready = ::poll(polled.data(), polled.size(), wait);
      if (ready == 0) call(state, [&] { return state.whenQuiet; });
      if (ready <= 0) continue;
      if (polled.front().revents) {
        eventfd_t count = 0;
        ::eventfd_read(state.wake, &count);
      }
      for (std::size_t i = 1; i < polled.size(); ++i)
        if (polled[i].revents)
          call(state, [&, handle = polled[i].fd] {
            const auto found = state.watched.find(handle);
            return found == state.watched.end() ? Call() : found->second;
          });
    }
  }

  template <class Find>
  static void call(State& state, Find&& find) {
    Call work;
    {
      std::scoped_lock held(state.lock);
      if (!state.isEnding) work = find();
    }
    if (work) (*work)();
  }

  const std::shared_ptr<State> _state;
  std::thread _thread;
};

class LinuxUnixSockets final : public UnixSockets {
public:
  int socket() override { return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); }

  bool bind(int handle, const std::string& path) override {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path)) return false;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    return ::bind(handle, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  }

  bool listen(int handle, int backlog) override { return ::listen(handle, backlog) == 0; }

  int accept(int handle) override {
    const int client = ::accept4(handle, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (client < 0) {
      // Without a free descriptor the same client would be reported again at once.
      if (errno == EMFILE || errno == ENFILE) std::this_thread::sleep_for(restAfterFailure);
      return -1;
    }
    ucred peer{};
    socklen_t size = sizeof(peer);
    const bool isOurs = ::getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
                        size == sizeof(peer) && peer.uid == ::geteuid();
    if (isOurs) return client;
    ::close(client);
    return -1;
  }

  std::ptrdiff_t read(int handle, std::uint8_t* bytes, std::size_t length) override {
    std::ptrdiff_t count = 0;
    do {
      count = ::recv(handle, bytes, length, MSG_DONTWAIT);
    } while (count < 0 && errno == EINTR);
    return count;
  }

  std::string lastError() override {
    if (errno == EAGAIN || errno == EWOULDBLOCK) return {};
    return std::generic_category().message(errno);
  }

  void close(int handle) override { ::close(handle); }
  void unlink(const std::string& path) override { ::unlink(path.c_str()); }
  std::string fileId(const std::string& path) override {
    struct stat found {};
    if (::lstat(path.c_str(), &found) != 0) return {};
    // The number of a file that is gone is given to the next one.
    const auto& changed = found.st_ctim;
    std::string id;
    for (const auto part :
         {static_cast<std::intmax_t>(found.st_dev), static_cast<std::intmax_t>(found.st_ino),
          static_cast<std::intmax_t>(changed.tv_sec), static_cast<std::intmax_t>(changed.tv_nsec)})
      id += std::to_string(part) + ":";
    return id;
  }

  std::unique_ptr<SocketLoop> makeLoop() override {
    const int wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return wake < 0 ? nullptr : std::make_unique<LinuxSocketLoop>(wake);
  }
};

}  // namespace

std::shared_ptr<UnixSockets> makeUnixSockets() {
  return std::make_shared<LinuxUnixSockets>();
}

}  // namespace kestrova
