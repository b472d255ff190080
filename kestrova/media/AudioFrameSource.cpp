#include <kestrova/media/AudioFrameSource.h>
#include <kestrova/platform/Escaped.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/platform/Scheduler.h>
#include <kestrova/tracing/Uuid.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace kestrova {
namespace {

using namespace std::chrono_literals;

constexpr std::array sampleRates = {8'000, 12'000, 16'000, 24'000, 32'000, 44'100, 48'000};

/// Two blocks at a time, as most packets hold.
constexpr auto tickPeriod = 20ms;
/// How far a block may come before its time and still go out at once: the jitter of a sender's own
/// timer.
constexpr auto lead = 30ms;
/// How far one may come late before silence takes its place.
constexpr auto patience = 60ms;
/// What is later than this is not made up for: the process stood still.
constexpr auto mostBehind = 100ms;
/// Enough for the queue's ordinary length; a long sentence's memory is given back.
constexpr std::size_t mostIdle = 100;
constexpr std::chrono::milliseconds mostEverQueued = 10min;

PushResult check(const AudioData& data) {
  if (!data.samples) return PushResult::noData;
  if (std::find(sampleRates.begin(), sampleRates.end(), data.sampleRate) == sampleRates.end())
    return PushResult::badSampleRate;
  if (data.channels != 1 && data.channels != 2) return PushResult::badChannels;
  return data.frames == data.sampleRate / 100 ? PushResult::accepted : PushResult::badBlock;
}

std::size_t blocksIn(std::chrono::milliseconds time) {
  return static_cast<std::size_t>(std::clamp(time, 0ms, mostEverQueued) /
                                  AudioFrameSource::blockTime);
}

}  // namespace

class AudioFrameSource::State : public std::enable_shared_from_this<State> {
public:
  State(std::shared_ptr<RTCPeerConnectionFactory> factory, std::shared_ptr<Scheduler> scheduler,
        Options options);
  PushResult push(const AudioData& data);
  void clear();
  std::chrono::milliseconds queued() const;
  PushCounters counters() const;
  void onLow(std::chrono::milliseconds threshold, std::function<void()> callback);
  std::shared_ptr<CustomRTCMediaStream> makeStream(CustomStreamFields settings) const;

private:
  using Clock = Scheduler::Clock;
  struct Block {
    std::vector<std::int16_t> samples;
    int sampleRate = 0;
    int channels = 0;
  };
  struct Low {
    std::chrono::milliseconds threshold;
    std::function<void()> callback;
  };

  PushResult enqueue(const AudioData& data);
  void scheduleTick();
  void tick();
  bool takeDue(Clock::time_point now, Block& block);
  void moveOn(Clock::time_point now);
  void hand(const Block& block);
  std::chrono::milliseconds waiting() const;
  std::shared_ptr<const Low> noteLevel();
  void tell(std::shared_ptr<const Low> low);
  bool isAsked(const std::shared_ptr<const Low>& low) const;

  const std::shared_ptr<RTCPeerConnectionFactory> _factory;
  const std::shared_ptr<Scheduler> _scheduler;
  const std::shared_ptr<RTCAudioSource> _source;
  const std::size_t _mostQueued;  // blocks
  const std::shared_ptr<SerialQueue> _pacingQueue;
  const std::shared_ptr<SerialQueue> _lowQueue;  // a slow callback holds up no sound

  mutable std::mutex _lock;  // for all below
  std::deque<Block> _queue;
  std::vector<Block> _idle;  // kept for their memory
  PushCounters _counters;
  Clock::time_point _nextDue;  // when the block after the last one is due
  int _lastRate = 0;
  int _lastChannels = 0;
  std::shared_ptr<const Low> _low;
  bool _wasEnough = false;  // the threshold was reached, and not left since
  bool _ticking = false;
  bool _handing = false;  // some thread is inside the engine's source, which takes one at a time
};

AudioFrameSource::State::State(std::shared_ptr<RTCPeerConnectionFactory> factory,
                               std::shared_ptr<Scheduler> scheduler, Options options)
    : _factory(std::move(factory)),
      _scheduler(std::move(scheduler)),
      _source(_factory->audioSource(audioConstraints({}))),
      _mostQueued(blocksIn(options.mostQueued)),
      _pacingQueue(SerialQueue::make("live.kestrova.audio.pacing")),
      _lowQueue(SerialQueue::make("live.kestrova.audio.low")) {}

std::shared_ptr<CustomRTCMediaStream> AudioFrameSource::State::makeStream(
    CustomStreamFields settings) const {
  settings.audioTrack = _factory->audioTrack(_source, Uuid::random().text());
  settings.videoTrack = nullptr;
  settings.capture = nullptr;
  settings.capturer = nullptr;
  return std::make_shared<CustomRTCMediaStream>(std::move(settings));
}

std::chrono::milliseconds AudioFrameSource::State::queued() const {
  std::scoped_lock held(_lock);
  return waiting();
}

PushCounters AudioFrameSource::State::counters() const {
  std::scoped_lock held(_lock);
  return _counters;
}

void AudioFrameSource::State::clear() {
  std::deque<Block> gone;
  std::shared_ptr<const Low> low;
  {
    std::scoped_lock held(_lock);
    gone.swap(_queue);
    low = noteLevel();
  }
  tell(std::move(low));
}

// ---- Pushing -----------------------------------------------------------------------------------

PushResult AudioFrameSource::State::push(const AudioData& data) {
  const auto now = _scheduler->now();
  auto result = check(data);
  bool first = false;
  bool atOnce = false;
  {
    std::scoped_lock held(_lock);
    if (result == PushResult::accepted) {
      first = !std::exchange(_ticking, true);
      if (first) _nextDue = now;
      atOnce = _queue.empty() && !_handing && _nextDue <= now + lead;
      if (atOnce) {
        _handing = true;
        _lastRate = data.sampleRate;
        _lastChannels = data.channels;
        moveOn(now);
      } else {
        result = enqueue(data);
      }
    }
    ++(result == PushResult::accepted ? _counters.accepted : _counters.refused);
  }
  if (first) scheduleTick();
  if (!atOnce) return result;
  _source->onData(data);
  std::scoped_lock held(_lock);
  _handing = false;
  return result;
}

PushResult AudioFrameSource::State::enqueue(const AudioData& data) {
  if (_queue.size() >= _mostQueued) return PushResult::queueFull;
  Block block;
  if (!_idle.empty()) {
    block = std::move(_idle.back());
    _idle.pop_back();
  }
  block.sampleRate = data.sampleRate;
  block.channels = data.channels;
  block.samples.assign(data.samples,
                       data.samples + static_cast<std::ptrdiff_t>(data.frames) * data.channels);
  _queue.push_back(std::move(block));
  noteLevel();
  return PushResult::accepted;
}

// ---- Pacing ------------------------------------------------------------------------------------

void AudioFrameSource::State::scheduleTick() {
  _pacingQueue->after(tickPeriod, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->tick();
  });
}

void AudioFrameSource::State::tick() {
  const auto now = _scheduler->now();
  Block block;
  std::unique_lock held(_lock);
  while (!_handing && takeDue(now, block)) {
    _handing = true;
    auto low = noteLevel();
    held.unlock();
    tell(std::move(low));
    hand(block);
    held.lock();
    _handing = false;
    if (_idle.size() < mostIdle) _idle.push_back(std::move(block));
  }
  held.unlock();
  scheduleTick();
}

/// What goes out now: the next block that waits, or silence where one is overdue.
bool AudioFrameSource::State::takeDue(Clock::time_point now, Block& block) {
  if (_queue.empty()) {
    if (_nextDue + patience > now) return false;
    if (!_idle.empty()) {
      block = std::move(_idle.back());
      _idle.pop_back();
    }
    block.sampleRate = _lastRate;
    block.channels = _lastChannels;
    block.samples.assign(static_cast<std::size_t>(_lastRate / 100 * _lastChannels), 0);
  } else {
    if (_nextDue > now + tickPeriod) return false;
    block = std::move(_queue.front());
    _queue.pop_front();
    _lastRate = block.sampleRate;
    _lastChannels = block.channels;
  }
  moveOn(now);
  return true;
}

void AudioFrameSource::State::moveOn(Clock::time_point now) {
  _nextDue = std::max(_nextDue, now - mostBehind) + blockTime;
}

void AudioFrameSource::State::hand(const Block& block) {
  _source->onData({.samples = block.samples.data(),
                   .sampleRate = block.sampleRate,
                   .channels = block.channels,
                   .frames = block.sampleRate / 100});
}

// ---- Asking for more ---------------------------------------------------------------------------

void AudioFrameSource::State::onLow(std::chrono::milliseconds threshold,
                                    std::function<void()> callback) {
  auto low = callback ? std::make_shared<const Low>(Low{threshold, std::move(callback)}) : nullptr;
  std::scoped_lock held(_lock);
  _low.swap(low);
  _wasEnough = _low && waiting() >= _low->threshold;
}

std::chrono::milliseconds AudioFrameSource::State::waiting() const {
  return blockTime * static_cast<int>(_queue.size());
}

/// Whom to tell of what the queue has become.
std::shared_ptr<const AudioFrameSource::State::Low> AudioFrameSource::State::noteLevel() {
  if (!_low) return nullptr;
  const bool isEnough = waiting() >= _low->threshold;
  const bool fell = std::exchange(_wasEnough, isEnough) && !isEnough;
  return fell ? _low : nullptr;
}

void AudioFrameSource::State::tell(std::shared_ptr<const Low> low) {
  if (!low) return;
  _lowQueue->async([weak = weak_from_this(), low = std::move(low)] {
    const auto self = weak.lock();
    if (!self || !self->isAsked(low)) return;
    try {
      low->callback();
    } catch (...) {
      reportEscaped("an AudioFrameSource's callback");
    }
  });
}

bool AudioFrameSource::State::isAsked(const std::shared_ptr<const Low>& low) const {
  std::scoped_lock held(_lock);
  return _low == low;
}

// ---- The application's side of it --------------------------------------------------------------

std::shared_ptr<AudioFrameSource> AudioFrameSource::make(Options options) {
  const auto platform = Platform::current();
  return std::shared_ptr<AudioFrameSource>(new AudioFrameSource(
      std::make_shared<State>(platform->peerConnectionFactory(), platform->scheduler, options)));
}

AudioFrameSource::AudioFrameSource(std::shared_ptr<State> state) : _state(std::move(state)) {}

PushResult AudioFrameSource::push(const AudioData& data) {
  return _state->push(data);
}
void AudioFrameSource::clear() {
  _state->clear();
}
std::chrono::milliseconds AudioFrameSource::queued() const {
  return _state->queued();
}
PushCounters AudioFrameSource::counters() const {
  return _state->counters();
}
void AudioFrameSource::onLow(std::chrono::milliseconds threshold, std::function<void()> callback) {
  _state->onLow(threshold, std::move(callback));
}
std::shared_ptr<CustomRTCMediaStream> AudioFrameSource::makeStream(
    CustomStreamFields settings) const {
  return _state->makeStream(std::move(settings));
}

}  // namespace kestrova
