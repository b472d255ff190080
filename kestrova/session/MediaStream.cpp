#include <kestrova/media/AppData.h>
#include <kestrova/session/MediaStream.h>
#include <kestrova/tracing/Uuid.h>

#include <vector>

namespace kestrova {

MediaStream::MediaStream(std::shared_ptr<Producer> producer)
    : _id(producer->id()),
      _kind(mediaTypeOf(producer->kind(), isShare(producer->appData()))),
      _track(producer->track()),
      _producer(std::move(producer)) {}

MediaStream::MediaStream(std::shared_ptr<Consumer> consumer, bool isShare)
    : _id(consumer->id()),
      _kind(mediaTypeOf(consumer->kind(), isShare)),
      _track(consumer->track()),
      _consumer(std::move(consumer)) {}

std::shared_ptr<RTCVideoTrack> MediaStream::videoTrack() const {
  return std::dynamic_pointer_cast<RTCVideoTrack>(_track);
}

std::shared_ptr<RTCAudioTrack> MediaStream::audioTrack() const {
  return std::dynamic_pointer_cast<RTCAudioTrack>(_track);
}

std::shared_ptr<RtpStream> MediaStream::rtpStream() const {
  if (_producer) return _producer;
  return _consumer;
}

bool MediaStream::isPaused() const {
  return rtpStream()->paused();
}

Task<std::string> MediaStream::stats() const {
  const auto stream = rtpStream();
  co_return co_await stream->stats();
}

std::string MediaStream::on(MediaStreamEventType, StateListener listener) {
  auto id = Uuid::random().text();
  std::scoped_lock held(_lock);
  _stateListeners.emplace(id, std::move(listener));
  return id;
}

void MediaStream::off(MediaStreamEventType, const std::string& listenerId) {
  std::scoped_lock held(_lock);
  _stateListeners.erase(listenerId);
}

void MediaStream::setMeetingActionValidatorSource(
    std::weak_ptr<MeetingActionValidatorProviding> source) {
  std::scoped_lock held(_lock);
  _meetingActionValidatorSource = std::move(source);
}

void MediaStream::notifyState(StreamState state) {
  std::vector<StateListener> listeners;
  {
    std::scoped_lock held(_lock);
    for (const auto& [id, listener] : _stateListeners) listeners.push_back(listener);
  }
  for (const auto& listener : listeners) listener(state);
}

}  // namespace kestrova
