#include <kestrova/platform/linux/audio/PulseConnection.h>
#include <kestrova/platform/linux/audio/PulseMicrophone.h>
#include <kestrova/platform/linux/audio/PulseRecording.h>
#include <kestrova/platform/linux/audio/SourceSearch.h>
#include <kestrova/platform/linux/audio/VoiceProcessing.h>

#include <atomic>
#include <condition_variable>
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

/// One recording, from `start` to `stop` or its own end, on a thread of its own.
class Session : public std::enable_shared_from_this<Session> {
public:
  Session(std::string sourceName, std::shared_ptr<RTCAudioSource> source,
          MicrophoneCapturer::FailureHandler failed)
      : _sourceName(std::move(sourceName)),
        _source(std::move(source)),
        _failed(std::move(failed)),
        _processing(makeVoiceProcessing(_source->constraints())) {}

  ~Session() {
    if (!_thread.joinable()) return;
    if (isOwnThread())
      _thread.detach();
    else
      _thread.join();
  }

  /// True once it records.
  bool start() {
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
    _recording.reset();
    _connection.close();
    if (!failure.empty() && !_stopping && _failed) _failed(failure);
    _source.reset();
    enter(Phase::ended);
  }

  bool begin(Clock::time_point until) {
    if (!_connection.openUntil(until)) return false;
    const auto name = findSource(_connection, _sourceName, until);
    if (!name) return false;
    // The default source is not asked for by its name, so that the server moves us along.
    _recording.emplace(_connection, _sourceName.empty() ? _sourceName : *name,
                       [this](PulseRecording::Block& block, std::chrono::milliseconds delay) {
                         deliver(block, delay);
                       });
    while (!_stopping && isAlive() && !_recording->isRunning() && Clock::now() < until)
      _connection.iterate(until);
    return !_stopping && _recording->isRunning();
  }

  bool isAlive() const { return _connection.isReady() && !_recording->hasFailed(); }

  /// Gives why it ended, or nothing when it was stopped.
  std::string record() {
    while (!_stopping && isAlive()) {
      if (_recording->wasMoved() && !isMicrophone(_recording->source())) break;
      _connection.iterate();
    }
    if (_stopping) return {};
    return _connection.isReady() ? "the microphone is gone" : "the sound server is gone";
  }

  bool isMicrophone(const std::string& source) {
    return findSource(_connection, source, Clock::now() + kLongestAnswer) || !_connection.isReady();
  }

  void deliver(PulseRecording::Block& block, std::chrono::milliseconds delay) {
    if (_stopping) return;
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
  std::optional<PulseRecording> _recording;

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
  if (!connection.openUntil(until) || !findSource(connection, sourceName, until)) return nullptr;
  return std::make_unique<PulseMicrophone>(sourceName);
}

}  // namespace kestrova
