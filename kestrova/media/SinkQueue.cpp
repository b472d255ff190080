#include <kestrova/media/SinkQueue.h>
#include <kestrova/platform/Platform.h>

#include <boost/asio/post.hpp>

#include <utility>

namespace kestrova {
namespace {

/// 10 ms of stereo at the engine's highest rate.
constexpr std::size_t mostSamples = 2 * 480;

}  // namespace

SinkQueue::SinkQueue() : _executor(Platform::current()->background) {}

SinkCounters SinkQueue::counters() const {
  std::scoped_lock held(_lock);
  return _counters;
}

bool SinkQueue::isRemoved() const {
  std::scoped_lock held(_lock);
  return _removed;
}

void SinkQueue::remove() {
  {
    std::scoped_lock held(_lock);
    if (std::exchange(_removed, true)) return;
  }
  leaveTrack();
  forgetAll();
}

template <class Store>
void SinkQueue::take(const Store& store) {
  {
    std::scoped_lock held(_lock);
    if (_removed) return;
    if (store()) ++_counters.dropped;
    if (std::exchange(_scheduled, true)) return;
  }
  schedule();
}

void SinkQueue::schedule() {
  boost::asio::post(_executor, [self = shared_from_this()] { self->deliverOne(); });
}

/// One at a time, so that a busy sink doesn't keep a thread from everything else.
void SinkQueue::deliverOne() {
  {
    std::scoped_lock held(_lock);
    if (_removed || !takeOldest()) {
      _scheduled = false;
      return;
    }
  }
  bool isThere = true;
  bool threw = false;
  try {
    isThere = callSink();
  } catch (...) {  // NOLINT: an application's mistake must not end the process; it is counted
    threw = true;
  }
  {
    std::scoped_lock held(_lock);
    if (threw)
      ++_counters.failed;
    else if (isThere)
      ++_counters.delivered;
  }
  if (!isThere) remove();
  schedule();
}

// ---- video -------------------------------------------------------------------------------------

void VideoSinkQueue::onFrame(const VideoFrame& frame) {
  VideoFrame overtaken;  // goes once the lock is free
  take([&] {
    const bool full = _count == capacity;
    if (full) {
      overtaken = std::move(_ring[_first]);
      _first = (_first + 1) % capacity;
      --_count;
    }
    _ring[(_first + _count++) % capacity] = frame;
    return full;
  });
}

bool VideoSinkQueue::takeOldest() {
  if (_count == 0) return false;
  _current = std::exchange(_ring[_first], {});
  _first = (_first + 1) % capacity;
  --_count;
  return true;
}

void VideoSinkQueue::forgetAll() {
  std::array<VideoFrame, capacity> gone;  // an application's memory may hang on it
  std::scoped_lock held(_lock);
  gone.swap(_ring);
  _count = 0;
}

bool VideoSinkQueue::callSink() {
  const auto frame = std::exchange(_current, {});
  const auto sink = _sink.lock();
  if (sink) sink->onFrame(frame);
  return sink != nullptr;
}

void VideoSinkQueue::leaveTrack() {
  const auto self = std::static_pointer_cast<VideoSinkQueue>(shared_from_this());
  if (const auto track = _track.lock()) track->removeSink(self);
}

// ---- audio -------------------------------------------------------------------------------------

AudioSinkQueue::AudioSinkQueue(const std::shared_ptr<RTCAudioTrack>& track,
                               const std::shared_ptr<AudioSink>& sink)
    : _track(track), _sink(sink) {
  _current.samples.reserve(mostSamples);
  for (auto& block : _ring) block.samples.reserve(mostSamples);
}

void AudioSinkQueue::onData(const AudioData& data) {
  if (!data.samples || data.frames <= 0 || data.channels <= 0) return;
  take([&] {
    const bool full = _count == capacity;
    if (full) {
      _first = (_first + 1) % capacity;
      --_count;
    }
    auto& block = _ring[(_first + _count++) % capacity];
    block.data = data;
    block.samples.assign(data.samples,
                         data.samples + static_cast<std::ptrdiff_t>(data.frames) * data.channels);
    return full;
  });
}

bool AudioSinkQueue::takeOldest() {
  if (_count == 0) return false;
  std::swap(_current, _ring[_first]);  // the memory of both stays in use
  _first = (_first + 1) % capacity;
  --_count;
  return true;
}

void AudioSinkQueue::forgetAll() {
  std::scoped_lock held(_lock);
  _count = 0;
}

bool AudioSinkQueue::callSink() {
  const auto sink = _sink.lock();
  _current.data.samples = _current.samples.data();
  if (sink) sink->onData(_current.data);
  return sink != nullptr;
}

void AudioSinkQueue::leaveTrack() {
  const auto self = std::static_pointer_cast<AudioSinkQueue>(shared_from_this());
  if (const auto track = _track.lock()) track->removeSink(self);
}

}  // namespace kestrova
