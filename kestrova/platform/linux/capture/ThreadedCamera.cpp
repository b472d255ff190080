#include <kestrova/platform/linux/capture/ThreadedCamera.h>

#include <condition_variable>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace kestrova {
namespace {

constexpr int kLargestSide = 8192;
constexpr int kHighestRate = 240;
/// A device that does not let go for so long hangs: whoever waits goes on without it.
constexpr auto kReleasePatience = std::chrono::seconds(2);
constexpr auto kAbandonPatience = std::chrono::seconds(1);
constexpr const char* kStoppedBefore = "the capture was stopped before it began";

}  // namespace

/// One capture from its start to its end. Its thread keeps it alive.
class ThreadedCamera::Session {
public:
  using Begun = std::function<void(const std::string& error)>;

  Session(std::unique_ptr<PictureSource> source, FrameHandler frame, FailureHandler failure,
          Begun begun, std::shared_ptr<Session> previous)
      : _source(std::move(source)),
        _frame(std::move(frame)),
        _failure(std::move(failure)),
        _begun(std::move(begun)),
        _previous(std::move(previous)) {}

  static void start(const std::shared_ptr<Session>& session) {
    try {
      std::thread([session] { session->run(); }).detach();
    } catch (const std::system_error& error) {
      session->refuse(std::string("the capture cannot begin: ") + error.what());
      session->enter(Stage::ended);
    }
  }

  bool isCapturing() const {
    std::scoped_lock held(_lock);
    return _stage == Stage::capturing && !_stopping;
  }

  void stop(std::function<void()> stopped) {
    {
      std::scoped_lock held(_lock);
      _stopping = true;
      if (_stage < Stage::released) {
        if (stopped) _whenStopped.push_back(std::move(stopped));
        stopped = nullptr;
      }
    }
    _stop.raise();
    if (stopped) stopped();
  }

  void stopAndWait() {
    stop({});
    std::unique_lock held(_lock);
    if (_thread == std::this_thread::get_id()) return;
    const auto starting = [&] { return _stage == Stage::starting; };
    if (starting()) _changed.wait_for(held, kAbandonPatience, [&] { return !starting(); });
    _abandoned = starting();
    if (!_abandoned) _changed.wait(held, [&] { return _stage == Stage::ended; });
  }

private:
  enum class Stage { starting, capturing, released, ended };

  void run() {
    waitForPrevious();
    // Often switched on and off, a camera need not be opened for each time.
    const auto error = isStopping() ? kStoppedBefore : _source->open();
    if (begin(error)) {
      if (auto begun = std::exchange(_begun, nullptr)) begun("");
      end(_source->run(_stop, _frame));
    } else {
      refuse(error.empty() ? kStoppedBefore : error);
    }
    enter(Stage::ended);
  }

  void waitForPrevious() {
    {
      std::scoped_lock held(_lock);
      _thread = std::this_thread::get_id();
    }
    const auto previous = std::exchange(_previous, nullptr);
    if (!previous) return;
    std::unique_lock held(previous->_lock);
    previous->_changed.wait_for(held, kReleasePatience,
                                [&] { return previous->_stage >= Stage::released; });
  }

  bool isStopping() const {
    std::scoped_lock held(_lock);
    return _stopping;
  }

  bool begin(const std::string& error) {
    std::scoped_lock held(_lock);
    if (!error.empty() || _stopping) return false;
    _stage = Stage::capturing;
    _changed.notify_all();
    return true;
  }

  void refuse(const std::string& error) {
    letGo();
    auto begun = std::exchange(_begun, nullptr);
    const auto whenStopped = enter(Stage::released);
    if (!whenStopped) return;
    if (begun) begun(error);
    for (const auto& stopped : *whenStopped) stopped();
  }

  void end(const std::string& error) {
    letGo();
    auto failure = std::exchange(_failure, nullptr);
    bool asked = false;
    const auto whenStopped = enter(Stage::released, &asked);
    if (!asked && !error.empty() && failure) failure(error);
    failure = nullptr;
    for (const auto& stopped : *whenStopped) stopped();
  }

  /// What the handler and the source hold goes before anyone is told.
  void letGo() {
    _source.reset();
    _frame = nullptr;
  }

  /// Whom to tell of the end; nothing when nobody is there any more.
  std::optional<std::vector<std::function<void()>>> enter(Stage stage, bool* asked = nullptr) {
    std::scoped_lock held(_lock);
    _stage = stage;
    _changed.notify_all();
    if (asked) *asked = _stopping;
    if (_abandoned) return std::nullopt;
    return std::exchange(_whenStopped, {});
  }

  StopSignal _stop;
  // The thread's own:
  std::unique_ptr<PictureSource> _source;
  FrameHandler _frame;
  FailureHandler _failure;
  Begun _begun;
  std::shared_ptr<Session> _previous;

  mutable std::mutex _lock;
  std::condition_variable _changed;
  // Under _lock:
  Stage _stage = Stage::starting;
  bool _stopping = false;
  bool _abandoned = false;
  std::thread::id _thread;
  std::vector<std::function<void()>> _whenStopped;
};

ThreadedCamera::~ThreadedCamera() {
  if (const auto session = current()) session->stopAndWait();
}

void ThreadedCamera::onFrame(FrameHandler handler) {
  std::scoped_lock held(_lock);
  _frameHandler = std::move(handler);
}

void ThreadedCamera::onFailure(FailureHandler handler) {
  std::scoped_lock held(_lock);
  _failureHandler = std::move(handler);
}

std::shared_ptr<ThreadedCamera::Session> ThreadedCamera::current() const {
  std::scoped_lock held(_lock);
  return _session;
}

bool ThreadedCamera::isRunning() const {
  const auto session = current();
  return session && session->isCapturing();
}

void ThreadedCamera::startCapture(const AVCaptureDevice& device, const CaptureFormat& format,
                                  int fps,
                                  std::function<void(const std::string& error)> completion) {
  const auto sound = [](int value, int most) { return value >= 1 && value <= most; };
  std::string error;
  if (!sound(format.width, kLargestSide) || !sound(format.height, kLargestSide) ||
      !sound(fps, kHighestRate))
    error = "the camera has no such format";
  std::shared_ptr<Session> previous;
  try {
    auto source = error.empty() ? _makeSource(device, format, fps) : nullptr;
    if (error.empty() && !source) error = "there is no such camera: " + device.uniqueId;
    std::unique_lock held(_lock);
    if (error.empty() && !_frameHandler) error = "nobody takes the pictures";
    if (error.empty()) {
      previous = _session;
      auto session = std::make_shared<Session>(std::move(source), _frameHandler, _failureHandler,
                                               completion, previous);
      _session = session;
      held.unlock();
      if (previous) previous->stop({});
      Session::start(session);
      return;
    }
  } catch (const std::system_error& failure) {
    error = std::string("the capture cannot begin: ") + failure.what();
  }
  if (completion) completion(error);
}

void ThreadedCamera::stopCapture(std::function<void()> completion) {
  if (const auto session = current())
    session->stop(std::move(completion));
  else if (completion)
    completion();
}

}  // namespace kestrova
