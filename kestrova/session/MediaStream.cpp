#include <kestrova/media/AppData.h>
#include <kestrova/media/SinkQueue.h>
#include <kestrova/model/MeetingAction.h>
#include <kestrova/platform/Escaped.h>
#include <kestrova/platform/Mediasoup.h>
#include <kestrova/platform/Task.h>
#include <kestrova/session/MediaStream.h>
#include <kestrova/signalling/ParticipantDelegate.h>
#include <kestrova/tracing/Uuid.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

namespace kestrova {
namespace {

/// The queue of that sink among `queues`, made if it isn't there. Those without a sink move to
/// `gone`: pictures of the application may hang on them, whose release is not for a lock.
template <class Queue, class Track, class Sink>
std::shared_ptr<Queue> queueOf(std::vector<std::shared_ptr<Queue>>& queues,
                               const std::shared_ptr<Track>& track,
                               const std::shared_ptr<Sink>& sink,
                               std::vector<std::shared_ptr<Queue>>& gone) {
  const auto isLive = [](const auto& queue) { return !queue->isRemoved() && queue->hasSink(); };
  const auto dead = std::partition(queues.begin(), queues.end(), isLive);
  std::move(dead, queues.end(), std::back_inserter(gone));
  queues.erase(dead, queues.end());
  for (const auto& queue : queues)
    if (queue->feeds(sink)) return queue;
  return queues.emplace_back(std::make_shared<Queue>(track, sink));
}

template <class Listener>
std::string addListener(std::map<std::string, Listener>& listeners, Listener listener) {
  auto id = Uuid::random().text();
  if (listener) listeners.emplace(id, std::move(listener));
  return id;
}

template <class Listener, class News>
void callEach(const std::map<std::string, Listener>& listeners, const News& news) {
  for (const auto& [id, listener] : listeners) {
    try {
      listener(news);
    } catch (...) {
      reportEscaped("a listener of a stream");
    }
  }
}

}  // namespace

struct MediaStream::State {
  std::mutex lock;  // for all below
  std::weak_ptr<MeetingActionValidatorProviding> meetingActionValidatorSource;
  std::weak_ptr<MediaStreamDelegate> delegate;
  std::optional<std::string> pausedBy;
  std::map<std::string, StateListener> stateListeners;
  std::map<std::string, MetricsListener> metricsListeners;
  StreamMetrics metrics;
  bool ended = false;
  std::vector<std::shared_ptr<VideoSinkQueue>> videoSinks;
  std::vector<std::shared_ptr<AudioSinkQueue>> audioSinks;
};

MediaStream::MediaStream(std::shared_ptr<Producer> producer)
    : _id(producer->id()),
      _kind(mediaTypeOf(producer->kind(), isShare(producer->appData()))),
      _track(producer->track()),
      _producer(std::move(producer)),
      _state(std::make_unique<State>()) {}

MediaStream::MediaStream(std::shared_ptr<Consumer> consumer, bool isShare)
    : _id(consumer->id()),
      _kind(mediaTypeOf(consumer->kind(), isShare)),
      _track(consumer->track()),
      _consumer(std::move(consumer)),
      _state(std::make_unique<State>()) {}

MediaStream::~MediaStream() = default;

std::shared_ptr<RTCVideoTrack> MediaStream::videoTrack() const {
  return std::dynamic_pointer_cast<RTCVideoTrack>(_track);
}

std::shared_ptr<RTCAudioTrack> MediaStream::audioTrack() const {
  return std::dynamic_pointer_cast<RTCAudioTrack>(_track);
}

std::shared_ptr<SinkHandle> MediaStream::addSink(const std::shared_ptr<VideoSink>& sink) {
  const auto track = videoTrack();
  if (!track || !sink) return nullptr;
  std::vector<std::shared_ptr<VideoSinkQueue>> gone;
  std::shared_ptr<VideoSinkQueue> queue;
  {
    std::scoped_lock held(_state->lock);
    queue = queueOf(_state->videoSinks, track, sink, gone);
  }
  track->addSink(queue);
  return queue;
}

std::shared_ptr<SinkHandle> MediaStream::addSink(const std::shared_ptr<AudioSink>& sink) {
  const auto track = audioTrack();
  if (!track || !sink) return nullptr;
  std::vector<std::shared_ptr<AudioSinkQueue>> gone;
  std::shared_ptr<AudioSinkQueue> queue;
  {
    std::scoped_lock held(_state->lock);
    queue = queueOf(_state->audioSinks, track, sink, gone);
  }
  track->addSink(queue);
  return queue;
}

std::shared_ptr<RtpStream> MediaStream::rtpStream() const {
  if (_producer) return _producer;
  return _consumer;
}

bool MediaStream::isPaused() const {
  return rtpStream()->paused();
}

void MediaStream::pause() {
  ask("pause", &MediaStreamDelegate::pauseConsumer);
}

void MediaStream::resume() {
  ask("resume", &MediaStreamDelegate::resumeConsumer);
}

void MediaStream::ask(const char* methodName,
                      void (MediaStreamDelegate::*request)(const std::string&)) {
  std::shared_ptr<MeetingActionValidatorProviding> source;
  std::shared_ptr<MediaStreamDelegate> delegate;
  {
    std::scoped_lock held(_state->lock);
    source = _state->meetingActionValidatorSource.lock();
    delegate = _state->delegate.lock();
  }
  const auto validator = source ? source->meetingActionValidator() : nullptr;
  if (validator && validator->allows(methodName) && delegate) ((*delegate).*request)(_id);
}

std::optional<std::string> MediaStream::pausedBy() const {
  std::scoped_lock held(_state->lock);
  return _state->pausedBy;
}

void MediaStream::setPausedBy(std::optional<std::string> reason) {
  std::scoped_lock held(_state->lock);
  _state->pausedBy = std::move(reason);
}

void MediaStream::setDelegate(std::weak_ptr<MediaStreamDelegate> delegate) {
  std::scoped_lock held(_state->lock);
  _state->delegate = std::move(delegate);
}

Task<std::string> MediaStream::stats() const {
  // The coroutine runs when it is awaited; this stream may be gone by then.
  return [](std::shared_ptr<RtpStream> stream) -> Task<std::string> {
    co_return co_await stream->stats();
  }(rtpStream());
}

StreamMetrics MediaStream::metrics() const {
  std::scoped_lock held(_state->lock);
  return _state->metrics;
}

std::string MediaStream::onMetrics(MetricsListener listener) {
  std::scoped_lock held(_state->lock);
  return addListener(_state->metricsListeners, std::move(listener));
}

void MediaStream::offMetrics(const std::string& listenerId) {
  std::map<std::string, MetricsListener>::node_type gone;  // goes after the lock
  std::scoped_lock held(_state->lock);
  gone = _state->metricsListeners.extract(listenerId);
}

std::string MediaStream::on(MediaStreamEventType, StateListener listener) {
  std::scoped_lock held(_state->lock);
  return addListener(_state->stateListeners, std::move(listener));
}

void MediaStream::off(MediaStreamEventType, const std::string& listenerId) {
  std::map<std::string, StateListener>::node_type gone;  // goes after the lock
  std::scoped_lock held(_state->lock);
  gone = _state->stateListeners.extract(listenerId);
}

void MediaStream::dismissListeners() {
  std::map<std::string, StateListener> gone;  // go after the lock
  std::map<std::string, MetricsListener> goneToo;
  std::scoped_lock held(_state->lock);
  gone.swap(_state->stateListeners);
  goneToo.swap(_state->metricsListeners);
}

void MediaStream::setMeetingActionValidatorSource(
    std::weak_ptr<MeetingActionValidatorProviding> source) {
  std::scoped_lock held(_state->lock);
  _state->meetingActionValidatorSource = std::move(source);
}

bool MediaStream::notifyState(StreamState state) {
  std::map<std::string, StateListener> listeners;
  {
    std::scoped_lock held(_state->lock);
    if (_state->ended) return false;
    _state->ended = state == StreamState::ENDED;
    listeners = _state->stateListeners;
  }
  callEach(listeners, state);
  // They may hold the stream.
  if (state == StreamState::ENDED) dismissListeners();
  return true;
}

void MediaStream::takeMetrics(const StreamMetrics& metrics) {
  std::map<std::string, MetricsListener> listeners;
  {
    std::scoped_lock held(_state->lock);
    if (_state->ended) return;
    _state->metrics = metrics;
    listeners = _state->metricsListeners;
  }
  callEach(listeners, metrics);
}

}  // namespace kestrova
