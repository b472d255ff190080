#include <kestrova/platform/linux/audio/MicrophoneRoute.h>
#include <kestrova/platform/linux/audio/PulseConnection.h>
#include <kestrova/platform/linux/audio/PulseMicrophone.h>
#include <kestrova/platform/linux/audio/PulseRecording.h>
#include <kestrova/platform/linux/audio/SourceSearch.h>
#include <kestrova/platform/linux/audio/VoiceProcessing.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

namespace kestrova {
namespace {

using Clock = PulseConnection::Clock;
constexpr auto kLongestAnswer = std::chrono::milliseconds(400);
constexpr auto kLongestStart = std::chrono::seconds(1);
/// A wireless microphone takes its time to wake.
constexpr auto kLongestChange = std::chrono::seconds(5);

/// One recording, from `start` to `stop` or its own end, on a thread of its own.
class Session final : public MicrophoneRoute::Follower,
                      public std::enable_shared_from_this<Session> {
public:
  Session(std::string sourceName, std::shared_ptr<RTCAudioSource> source,
          MicrophoneCapturer::FailureHandler failed)
      : _sourceName(std::move(sourceName)),
        _source(std::move(source)),
        _failed(std::move(failed)),
        _processing(makeVoiceProcessing(_source->constraints())) {}

  ~Session() override {
    if (!_thread.joinable()) return;
    if (isOwnThread())
      _thread.detach();
    else
      _thread.join();
  }

  /// True once it records.
  bool start() {
    MicrophoneRoute::shared().add(weak_from_this());
    try {
      _thread = std::thread([self = shared_from_this()] { self->run(); });
    } catch (const std::system_error&) {
      enter(Phase::ended);
    }
    std::unique_lock held(_lock);
    _changed.wait(held, [this] { return _phase != Phase::starting; });
    return _phase == Phase::recording;
  }

  void stop() {
    _stopping = true;
    _connection.wake();
    if (isOwnThread()) return;
    std::unique_lock held(_lock);
    _changed.wait(held, [this] { return _phase == Phase::ended; });
  }

  void routeChanged() override { _connection.wake(); }

private:
  enum class Phase { starting, recording, ended };

  bool isOwnThread() const { return _threadId.load() == std::this_thread::get_id(); }

  void enter(Phase phase) {
    std::scoped_lock held(_lock);
    _phase = phase;
    _changed.notify_all();
  }

  void run() {
    _threadId = std::this_thread::get_id();
    std::string failure;
    if (begin(Clock::now() + kLongestStart)) {
      enter(Phase::recording);
      failure = record();
    }
    _next.reset();
    _recording.reset();
    _connection.close();
    if (!failure.empty() && !_stopping && _failed) _failed(failure);
    _source.reset();
    enter(Phase::ended);
  }

  bool begin(Clock::time_point until) {
    if (!_connection.openUntil(until)) return false;
    _routeVersion = MicrophoneRoute::shared().version();
    const auto wanted = MicrophoneRoute::shared().source(_sourceName);
    auto name = findSource(_connection, wanted, until);
    // What was chosen once may be unplugged by now.
    const bool isChosen = name.has_value();
    if (!isChosen) name = findSource(_connection, _sourceName, until);
    if (!name) return false;
    _recording = record(isChosen ? wanted : _sourceName, *name);
    while (!_stopping && isAlive() && !_recording->isRunning() && Clock::now() < until)
      _connection.iterate(until);
    return !_stopping && _recording->isRunning();
  }

  std::unique_ptr<PulseRecording> record(const std::string& wanted, const std::string& name) {
    const auto number = ++_recordings;
    // The default source is not asked for by its name, so that the server moves us along.
    return std::make_unique<PulseRecording>(
        _connection, wanted.empty() ? wanted : name,
        [this, number](PulseRecording::Block& block, std::chrono::milliseconds delay) {
          deliver(number, block, delay);
        });
  }

  bool isAlive() const { return _connection.isReady() && (!_recording->hasFailed() || _next); }

  /// Gives why it ended, or nothing when it was stopped.
  std::string record() {
    while (!_stopping && isAlive()) {
      if (_recording->wasMoved() && !isMicrophone(_recording->source())) break;
      follow();
      if (!_stopping && isAlive()) _connection.iterate(_next ? _giveUp : Clock::time_point::max());
    }
    if (_stopping) return {};
    return _connection.isReady() ? "the microphone is gone" : "the sound server is gone";
  }

  bool isMicrophone(const std::string& source) {
    return findSource(_connection, source, Clock::now() + kLongestAnswer) || !_connection.isReady();
  }

  /// Goes over to the source that was chosen. The one before is heard until the other one is.
  void follow() {
    takeOver();
    if (_next && (_next->hasFailed() || Clock::now() >= _giveUp)) _next.reset();
    const auto version = MicrophoneRoute::shared().version();
    if (version == _routeVersion) return;
    _routeVersion = version;
    const auto wanted = MicrophoneRoute::shared().source(_sourceName);
    const auto name = findSource(_connection, wanted, Clock::now() + kLongestAnswer);
    takeOver();  // it may have begun meanwhile
    if (!name || (_next && isOn(*_next, wanted, *name))) return;
    _next.reset();
    if (isOn(*_recording, wanted, *name)) return;
    _next = record(wanted, *name);
    _giveUp = Clock::now() + kLongestChange;
  }

  void takeOver() {
    if (_next && _heard == _recordings) _recording = std::move(_next);
  }

  static bool isOn(const PulseRecording& recording, const std::string& wanted,
                   const std::string& name) {
    if (wanted.empty() || recording.asked().empty()) return wanted == recording.asked();
    return recording.asked() == name && (!recording.isRunning() || recording.source() == name);
  }

  void deliver(int recording, PulseRecording::Block& block, std::chrono::milliseconds delay) {
    if (_stopping || recording < _heard) return;
    _heard = recording;
    if (_processing) _processing->process(block, delay);
    _source->onData({block.data(), PulseRecording::kSampleRate, 1, PulseRecording::kFrames});
  }

  const std::string _sourceName;
  std::atomic<bool> _stopping{false};
  std::atomic<std::thread::id> _threadId;
  PulseConnection _connection;
  // The session's thread:
  std::shared_ptr<RTCAudioSource> _source;
  MicrophoneCapturer::FailureHandler _failed;
  std::shared_ptr<VoiceProcessing> _processing;
  std::unique_ptr<PulseRecording> _recording;
  std::unique_ptr<PulseRecording> _next;  // on its way to take over
  Clock::time_point _giveUp;              // the next one
  int _recordings = 0;                    // so far; the newest has this number
  int _heard = 0;                         // the number of the one that is heard
  std::uint64_t _routeVersion = 0;

  std::mutex _lock;
  std::condition_variable _changed;
  Phase _phase = Phase::starting;  // under _lock
  std::thread _thread;
};

class PulseMicrophone final : public MicrophoneCapturer {
public:
  explicit PulseMicrophone(std::string sourceName) : _sourceName(std::move(sourceName)) {}
  ~PulseMicrophone() override { stop(); }

  void onFailure(FailureHandler handler) override {
    std::scoped_lock held(_lock);
    _failed = std::move(handler);
  }

  bool start(const std::shared_ptr<RTCAudioSource>& source) override {
    if (!source) return false;
    stop();
    std::shared_ptr<Session> session;
    {
      std::scoped_lock held(_lock);
      session = _session = std::make_shared<Session>(_sourceName, source, _failed);
    }
    if (session->start()) return true;
    stop();
    return false;
  }

  void stop() override {
    // Whoever stops second waits as well.
    std::shared_ptr<Session> session;
    {
      std::scoped_lock held(_lock);
      session = _session;
    }
    if (!session) return;
    session->stop();
    std::scoped_lock held(_lock);
    if (_session == session) _session = nullptr;
  }

private:
  const std::string _sourceName;
  std::mutex _lock;
  FailureHandler _failed;             // under _lock
  std::shared_ptr<Session> _session;  // under _lock
};

}  // namespace

std::unique_ptr<MicrophoneCapturer> makePulseMicrophone(const std::string& sourceName) {
  const auto until = Clock::now() + kLongestAnswer;
  PulseConnection connection;
  if (!connection.openUntil(until)) return nullptr;
  auto name = sourceName;
  if (!findSource(connection, name, until)) {
    const auto shown = sourceShownAs(connection, sourceName, until);
    const auto chosen = MicrophoneRoute::shared().source(sourceName);
    // What was chosen since may be there all the same.
    if (!shown && (chosen == sourceName || !findSource(connection, chosen, until))) return nullptr;
    if (shown) name = *shown;
  }
  return std::make_unique<PulseMicrophone>(name);
}

}  // namespace kestrova
