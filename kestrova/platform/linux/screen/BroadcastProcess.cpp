#include <kestrova/platform/linux/screen/BroadcastProcess.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

extern char** environ;

namespace kestrova {
namespace {

constexpr auto graceTime = std::chrono::seconds(2);
constexpr std::size_t mostComplaint = 4096;

bool isProgram(const std::string& path) {
  struct stat found {};
  return ::stat(path.c_str(), &found) == 0 && S_ISREG(found.st_mode) &&
         ::access(path.c_str(), X_OK) == 0;
}

/// Whether root's or ours, and nobody but them and their group may change it.
bool isTrusted(const std::string& path) {
  struct stat found {};
  return ::stat(path.c_str(), &found) == 0 && (found.st_uid == 0 || found.st_uid == ::geteuid()) &&
         (found.st_mode & S_IWOTH) == 0;
}

bool isTrustedProgram(const std::filesystem::path& path) {
  return isProgram(path.string()) && isTrusted(path.string()) &&
         isTrusted(path.parent_path().string());
}

[[noreturn]] void failToStart(int error) {
  throw std::system_error(error, std::generic_category(), "the program can't be started");
}

/// The environment without what is the application's own, such as its access token.
std::vector<char*> environmentForOthers() {
  std::vector<char*> kept;
  for (char** each = environ; each && *each; ++each)
    if (!std::string_view(*each).starts_with("KESTROVA_")) kept.push_back(*each);
  kept.push_back(nullptr);
  return kept;
}

struct Pipe {
  int read = -1;
  int write = -1;
  Pipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) failToStart(errno);
    read = ends[0];
    write = ends[1];
  }
  ~Pipe() {
    for (const int end : {read, write})
      if (end >= 0) ::close(end);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
};

/// \throws std::system_error
pid_t spawnProgram(const std::string& path, const std::vector<std::string>& arguments, int input,
                   int errors) {
  std::vector<char*> words{const_cast<char*>(path.c_str())};
  for (const auto& argument : arguments) words.push_back(const_cast<char*>(argument.c_str()));
  words.push_back(nullptr);
  posix_spawn_file_actions_t files;
  posix_spawnattr_t attributes;
  if (const int error = ::posix_spawn_file_actions_init(&files)) failToStart(error);
  ::posix_spawnattr_init(&attributes);
  ::posix_spawn_file_actions_adddup2(&files, input, STDIN_FILENO);
  ::posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  ::posix_spawn_file_actions_adddup2(&files, errors, STDERR_FILENO);
  ::posix_spawn_file_actions_addclosefrom_np(&files, STDERR_FILENO + 1);
  // Signals as they are by default, and a group of its own: Ctrl-C is for the application, which
  // then ends the share in its own way.
  sigset_t none;
  sigset_t all;
  ::sigemptyset(&none);
  ::sigfillset(&all);
  ::posix_spawnattr_setsigmask(&attributes, &none);
  ::posix_spawnattr_setsigdefault(&attributes, &all);
  ::posix_spawnattr_setpgroup(&attributes, 0);
  ::posix_spawnattr_setflags(
      &attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  auto environment = environmentForOthers();
  pid_t process = -1;
  const int failure =
      ::posix_spawn(&process, path.c_str(), &files, &attributes, words.data(), environment.data());
  ::posix_spawnattr_destroy(&attributes);
  ::posix_spawn_file_actions_destroy(&files);
  if (failure != 0) failToStart(failure);
  return process;
}

/// One running program: waits for its end, collects what it complains of, and reaps it.
class Watch : public std::enable_shared_from_this<Watch> {
public:
  using Ended = std::function<void(const BroadcastEnd&)>;
  Watch(const boost::asio::any_io_executor& network, pid_t process, int handle, int input,
        int errors, Ended ended)
      : _strand(boost::asio::make_strand(network)),
        _process(process),
        _handle(_strand, handle),
        _input(_strand, input),
        _errors(_strand, errors),
        _grace(_strand),
        _ended(std::move(ended)) {}

  void start() {
    boost::asio::post(_strand, [self = shared_from_this()] {
      self->readErrors();
      self->awaitEnd();
    });
  }
  void letGo() {
    boost::asio::post(_strand, [self = shared_from_this()] {
      self->_ended = nullptr;
      self->askToEnd();
    });
  }

private:
  void readErrors() {
    _isReading = true;
    const auto take = [self = shared_from_this()](const auto& error, std::size_t size) {
      self->_isReading = false;
      self->_complaint.append(self->_buffer.data(), size);
      if (self->_complaint.size() > mostComplaint)
        self->_complaint.erase(0, self->_complaint.size() - mostComplaint);
      if (self->_hasEnded)
        self->finish();
      else if (!error)
        self->readErrors();
    };
    _errors.async_read_some(boost::asio::buffer(_buffer), take);
  }

  void awaitEnd() {
    _handle.async_wait(_handle.wait_read, [self = shared_from_this()](const auto& error) {
      if (!error) self->reap();
    });
  }

  void reap() {
    const auto handle = static_cast<id_t>(_handle.native_handle());
    // Otherwise somebody else, or the system, has reaped it.
    _isResultKnown = ::waitid(P_PIDFD, handle, &_result, WEXITED) == 0;
    _hasEnded = true;
    _grace.cancel();
    // What was read already comes first.
    if (_isReading)
      _errors.cancel();
    else
      finish();
  }

  void finish() {
    takeLastWords();
    boost::system::error_code ignored;
    for (auto* each : {&_handle, &_input, &_errors}) each->close(ignored);
    if (const auto tell = std::exchange(_ended, nullptr)) tell(judge(_result));
  }

  void takeLastWords() {
    const int errors = _errors.native_handle();
    ::fcntl(errors, F_SETFL, O_NONBLOCK);
    std::array<char, mostComplaint> rest{};
    const auto size = ::read(errors, rest.data(), rest.size());
    if (size > 0) _complaint.append(rest.data(), static_cast<std::size_t>(size));
  }

  BroadcastEnd judge(const siginfo_t& info) const {
    if (!_isResultKnown) return {.kind = BroadcastEnd::Kind::unknown, .cause = lastLine()};
    if (info.si_code != CLD_EXITED)
      return {.kind = BroadcastEnd::Kind::failed,
              .cause = "ended by signal " + std::to_string(info.si_status)};
    if (info.si_status == broadcastExit::finished) return {};
    return {.kind = info.si_status == broadcastExit::refused ? BroadcastEnd::Kind::refused
                                                             : BroadcastEnd::Kind::failed,
            .cause = lastLine()};
  }

  std::string lastLine() const {
    const auto end = _complaint.find_last_not_of("\r\n ");
    if (end == std::string::npos) return {};
    const auto start = _complaint.find_last_of('\n', end);
    const auto from = start == std::string::npos ? 0 : start + 1;
    return _complaint.substr(from, end - from + 1);
  }

  void askToEnd() {
    if (_hasEnded) return;
    boost::system::error_code ignored;
    _input.close(ignored);
    signal(SIGTERM);
    _grace.expires_after(graceTime);
    _grace.async_wait([self = shared_from_this()](const auto& error) {
      if (!error && !self->_hasEnded) self->signal(SIGKILL);
    });
  }

  /// The whole group: a program may have started others. Nobody else has its number until it was
  /// reaped.
  void signal(int number) { ::kill(-_process, number); }

  const boost::asio::strand<boost::asio::any_io_executor> _strand;
  const pid_t _process;
  // On the strand:
  boost::asio::posix::stream_descriptor _handle;
  boost::asio::posix::stream_descriptor _input;
  boost::asio::posix::stream_descriptor _errors;
  boost::asio::steady_timer _grace;
  Ended _ended;
  std::array<char, 512> _buffer{};
  std::string _complaint;
  bool _isReading = false;
  bool _hasEnded = false;
  bool _isResultKnown = false;
  siginfo_t _result{};
};

class BroadcastProcess final : public BroadcastProgram {
public:
  explicit BroadcastProcess(std::shared_ptr<Watch> watch) : _watch(std::move(watch)) {}
  ~BroadcastProcess() override { _watch->letGo(); }

private:
  const std::shared_ptr<Watch> _watch;
};

}  // namespace

std::optional<std::string> findProgram(const std::string& name) {
  if (name.find('/') != std::string::npos)
    return isProgram(name) ? std::optional(name) : std::nullopt;
  std::error_code error;
  const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
  if (!error) {
    const auto beside = self.parent_path() / name;
    if (isTrustedProgram(beside)) return beside.string();
  }
  const char* path = std::getenv("PATH");
  std::string_view left = path ? path : "";
  while (!left.empty()) {
    const auto end = std::min(left.find(':'), left.size());
    const auto place = std::string(left.substr(0, end)) + "/" + name;
    left.remove_prefix(std::min(end + 1, left.size()));
    // A relative place would mean another program in every folder.
    if (place.starts_with('/') && isTrustedProgram(place)) return place;
  }
  return std::nullopt;
}

std::unique_ptr<BroadcastProgram> startBroadcast(const std::string& path,
                                                 const std::vector<std::string>& arguments,
                                                 const boost::asio::any_io_executor& network,
                                                 std::function<void(const BroadcastEnd&)> ended) {
  Pipe input;
  Pipe errors;
  const auto process = spawnProgram(path, arguments, input.read, errors.write);
  const int handle = static_cast<int>(::syscall(SYS_pidfd_open, process, 0));
  if (handle < 0) {
    const int error = errno;
    ::kill(process, SIGKILL);
    ::waitpid(process, nullptr, 0);
    failToStart(error);
  }
  auto watch = std::make_shared<Watch>(network, process, handle, std::exchange(input.write, -1),
                                       std::exchange(errors.read, -1), std::move(ended));
  watch->start();
  return std::make_unique<BroadcastProcess>(std::move(watch));
}

}  // namespace kestrova
