#include <kestrova/platform/Queue.h>
#include <kestrova/session/Participant.h>
#include <kestrova/tracing/Trace.h>

#include <utility>

namespace kestrova {

Participant::Participant(Options options)
    : _id(std::move(options.id)),
      _displayName(std::move(options.displayName)),
      _isLocal(options.isLocal),
      _metaData(std::move(options.metaData)),
      _mode(options.mode) {}

Participant::Participant(const Peer& peer)
    : Participant(Options{.id = peer.id,
                          .displayName = peer.displayName,
                          .mode = peer.participantMode(),
                          .metaData = peer.metaData}) {}

std::map<std::string, std::shared_ptr<MediaStream>> Participant::streams() const {
  std::scoped_lock held(_streamsLock);
  return _streams;
}

VideoQuality Participant::videoQuality() const {
  std::scoped_lock held(_participantStateLock);
  return _videoQuality;
}

ParticipantPinState Participant::pinState() const {
  std::scoped_lock held(_participantStateLock);
  return _pinState;
}

Mode Participant::mode() const {
  std::scoped_lock held(_participantStateLock);
  return _mode;
}

void Participant::addEventListener(const std::shared_ptr<ParticipantEventListener>& listener) {
  _listeners->add(listener);
}
void Participant::removeEventListener(const std::shared_ptr<ParticipantEventListener>& listener) {
  _listeners->remove(listener);
}
void Participant::removeAllEventListeners() {
  _listeners->removeAll();
}

std::shared_ptr<MeetingActionValidating> Participant::meetingActionValidator() const {
  std::scoped_lock held(_participantStateLock);
  return _meetingActionValidator.lock();
}

void Participant::setMeetingActionValidator(std::weak_ptr<MeetingActionValidating> validator) {
  std::scoped_lock held(_participantStateLock);
  _meetingActionValidator = std::move(validator);
}

std::string Participant::toJsonString() const {
  List streamList;
  for (const auto& [streamId, stream] : streams())
    streamList.push_back(Dictionary{{"id", streamId}, {"kind", text(stream->kind())}});
  const Dictionary json{{"id", _id},
                        {"displayName", _displayName},
                        {"isLocal", _isLocal},
                        {"mode", wireText(mode())},
                        {"streams", std::move(streamList)}};
  return jsonText(json).value_or("");
}

void Participant::addStream(const std::shared_ptr<MediaStream>& stream) {
  stream->setMeetingActionValidatorSource(weak_from_this());
  {
    std::scoped_lock held(_streamsLock);
    _streams[stream->id()] = stream;
  }
  MainQueue::shared().async(
      [self = shared_from_this(), stream] { self->_listeners->onStreamEnabled(stream, self); });
}

std::shared_ptr<MediaStream> Participant::removeStream(const std::string& id) {
  std::shared_ptr<MediaStream> stream;
  {
    std::scoped_lock held(_streamsLock);
    auto node = _streams.extract(id);
    if (node.empty()) return nullptr;
    stream = std::move(node.mapped());
  }
  MainQueue::shared().async(
      [self = shared_from_this(), stream] { self->_listeners->onStreamDisabled(stream, self); });
  return stream;
}

void Participant::removeAllStreams() {
  std::map<std::string, std::shared_ptr<MediaStream>> removed;
  {
    std::scoped_lock held(_streamsLock);
    removed.swap(_streams);
  }
  for (auto& [id, stream] : removed)
    MainQueue::shared().async([self = shared_from_this(), gone = std::move(stream)] {
      self->_listeners->onStreamDisabled(gone, self);
    });
}

void Participant::setMode(Mode mode) {
  std::scoped_lock held(_participantStateLock);
  _mode = mode;
}

void Participant::setPinState(ParticipantPinState pinState) {
  std::scoped_lock held(_participantStateLock);
  _pinState = pinState;
}

void Participant::handleStreamStateChanged(StreamState state, const std::string& streamId) {
  std::shared_ptr<MediaStream> stream;
  for (const auto& [id, candidate] : streams())
    if (id == streamId || candidate->track()->id() == streamId) stream = candidate;
  if (!stream) return;
  MainQueue::shared().async([self = shared_from_this(), stream, state] {
    stream->notifyState(state);
    trace("Emitting STREAM_STATE_CHANGED Event", {{"state", streamStateTexts(state)},
                                                  {"peerId", self->_id},
                                                  {"kind", text(stream->kind())}});
  });
}

void Participant::handleMediaStatusChanged(const std::string& peerId, MediaType kind,
                                           bool newStatus) {
  MainQueue::shared().async([self = shared_from_this(), peerId, kind, newStatus] {
    self->_listeners->onMediaStatusChanged(peerId, kind, newStatus);
  });
}

}  // namespace kestrova
