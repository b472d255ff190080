#include <kestrova/signalling/RoomContext.h>

#include <utility>

namespace kestrova {

RoomContext::RoomContext(RoomClientOptions roomOptions)
    : options(std::move(roomOptions)),
      platform(Platform::current()),
      socketRequestHandler(std::make_shared<SocketRequestHandler>(options.meeting)),
      stateQueue(SerialQueue::make("com.kestrova.roomclient.state")),
      _mode(options.mode),
      _customVideoMediaStream(options.customVideoMediaStream),
      _customAudioMediaStream(options.customAudioMediaStream) {}

std::shared_ptr<RoomClientDelegate> RoomContext::delegate() const {
  std::scoped_lock held(_lock);
  return _delegate.lock();
}

void RoomContext::setDelegate(std::weak_ptr<RoomClientDelegate> delegate) {
  std::scoped_lock held(_lock);
  _delegate = std::move(delegate);
}

Mode RoomContext::mode() const {
  std::scoped_lock held(_lock);
  return _mode;
}

void RoomContext::setMode(Mode mode) {
  std::scoped_lock held(_lock);
  _mode = mode;
}

bool RoomContext::joined() const {
  return stateQueue->sync([this] { return _joined; });
}

void RoomContext::setJoined(bool joined) {
  stateQueue->sync([this, joined] { _joined = joined; });
}

std::shared_ptr<CustomRTCMediaStream> RoomContext::customVideoMediaStream() const {
  std::scoped_lock held(_lock);
  return _customVideoMediaStream;
}

std::shared_ptr<CustomRTCMediaStream> RoomContext::customAudioMediaStream() const {
  std::scoped_lock held(_lock);
  return _customAudioMediaStream;
}

void RoomContext::forgetCustomStreams() {
  std::scoped_lock held(_lock);
  _customVideoMediaStream.reset();
  _customAudioMediaStream.reset();
}

}  // namespace kestrova
