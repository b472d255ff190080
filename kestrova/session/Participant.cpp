#include <kestrova/model/MulticastDelegate.h>
#include <kestrova/model/Peer.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/platform/Values.h>
#include <kestrova/session/Participant.h>
#include <kestrova/session/StreamMap.h>
#include <kestrova/signalling/ParticipantDelegate.h>
#include <kestrova/tracing/Trace.h>

#include <mutex>
#include <utility>

namespace kestrova {
namespace {

/// A state of a stream that never comes to be listed must not be kept for good.
constexpr std::size_t mostEarlyStates = 4;

}  // namespace

struct Participant::State {
  explicit State(Mode firstMode) : mode(firstMode) {}

  StreamMap streams;

  std::mutex stateLock;  // for all below but the listeners
  VideoQuality videoQuality = VideoQuality::high;
  std::optional<std::string> qualityAskedOf;  // of which stream; empty when of none
  ParticipantPinState pinState{false, false};
  std::optional<ParticipantPinState> askedPins;  // until the service says the same
  Mode mode;
  AgentState agentState = AgentState::IDLE;
  std::map<std::string, E2EEState> earlyE2ee;  // of streams that are still to be listed, by id
  std::weak_ptr<MeetingActionValidating> meetingActionValidator;
  std::weak_ptr<ParticipantDelegate> delegate;

  ParticipantMulticastDelegate listeners;
};

Participant::Participant(Options options)
    : _id(std::move(options.id)),
      _displayName(std::move(options.displayName)),
      _isLocal(options.isLocal),
      _metaData(std::move(options.metaData)),
      _state(std::make_unique<State>(options.mode)) {}

Participant::Participant(const Peer& peer)
    : Participant(Options{.id = peer.id,
                          .displayName = peer.displayName,
                          .mode = peer.participantMode(),
                          .metaData = peer.metaData}) {}

Participant::~Participant() = default;

std::map<std::string, std::shared_ptr<MediaStream>> Participant::streams() const {
  return _state->streams.all();
}

VideoQuality Participant::videoQuality() const {
  std::scoped_lock held(_state->stateLock);
  return _state->videoQuality;
}

ParticipantPinState Participant::pinState() const {
  std::scoped_lock held(_state->stateLock);
  return _state->pinState;
}

Mode Participant::mode() const {
  std::scoped_lock held(_state->stateLock);
  return _state->mode;
}

void Participant::addEventListener(const std::shared_ptr<ParticipantEventListener>& listener) {
  _state->listeners.add(listener);
}
ListenerHandle Participant::listen(std::shared_ptr<ParticipantEventListener> listener) {
  return _state->listeners.keep(std::move(listener));
}
ListenerHandle Participant::listen(ParticipantEvents events) {
  return listen(makeListener(std::move(events)));
}
void Participant::removeEventListener(const std::shared_ptr<ParticipantEventListener>& listener) {
  _state->listeners.remove(listener);
}
void Participant::removeAllEventListeners() {
  _state->listeners.removeAll();
}

void Participant::releaseKeptListeners() {
  _state->listeners.releaseKept();
}

void Participant::dismissListeners() {
  _state->listeners.removeAll();
  _state->listeners.releaseKept();
  _state->streams.dismissListeners();
}

std::shared_ptr<MeetingActionValidating> Participant::meetingActionValidator() const {
  std::scoped_lock held(_state->stateLock);
  return _state->meetingActionValidator.lock();
}

void Participant::setMeetingActionValidator(std::weak_ptr<MeetingActionValidating> validator) {
  std::scoped_lock held(_state->stateLock);
  _state->meetingActionValidator = std::move(validator);
}

void Participant::setDelegate(std::weak_ptr<ParticipantDelegate> delegate) {
  std::scoped_lock held(_state->stateLock);
  _state->delegate = std::move(delegate);
}

// ---- What is asked of it -----------------------------------------------------------------------

std::shared_ptr<ParticipantDelegate> Participant::mayAct(const char* methodName) const {
  const auto validator = meetingActionValidator();
  if (!validator || !validator->allows(methodName)) return nullptr;
  std::scoped_lock held(_state->stateLock);
  return _state->delegate.lock();
}

void Participant::askOf(const char* methodName, LocalEvent request) {
  if (const auto delegate = mayAct(methodName)) delegate->askOfPeer(request, _id);
}

void Participant::enableMic() {
  askOf("enableMic", LocalEvent::enablePeerMic);
}
void Participant::disableMic() {
  askOf("disableMic", LocalEvent::disablePeerMic);
}
void Participant::enableWebcam() {
  askOf("enableWebcam", LocalEvent::enablePeerWebcam);
}
void Participant::disableWebcam() {
  askOf("disableWebcam", LocalEvent::disablePeerWebcam);
}
void Participant::remove() {
  askOf("remove", LocalEvent::removePeer);
}

std::optional<List> Participant::getAudioStats() const {
  return statsOf(MediaType::audio);
}
std::optional<List> Participant::getVideoStats() const {
  return statsOf(MediaType::video);
}
std::optional<List> Participant::getShareStats() const {
  return statsOf(MediaType::share);
}
std::optional<List> AgentParticipant::getShareStats() const {
  refuse("getShareStats");
}

std::optional<List> Participant::statsOf(MediaType type) const {
  std::shared_ptr<ParticipantDelegate> delegate;
  {
    std::scoped_lock held(_state->stateLock);
    delegate = _state->delegate.lock();
  }
  return delegate ? delegate->getStats(_id, type) : std::nullopt;
}

void Participant::pin(PinType type) {
  changePin("pin", type, true);
}
void Participant::unpin(PinType type) {
  changePin("unpin", type, false);
}

void Participant::changePin(const char* methodName, PinType type, bool pinned) {
  const auto delegate = mayAct(methodName);
  if (!delegate) return;
  ParticipantPinState state;
  {
    std::scoped_lock held(_state->stateLock);
    // What was asked for a moment ago counts, though the service has not said so yet.
    state = _state->askedPins.value_or(_state->pinState);
    if (type != PinType::SHARE) state.cam = pinned;
    if (type != PinType::CAM) state.share = pinned;
    _state->askedPins = state;
  }
  delegate->participantPinStateChanged(_id, state, pinned, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->forgetAskedPins();
  });
}

void Participant::forgetAskedPins() {
  std::scoped_lock held(_state->stateLock);
  _state->askedPins.reset();
}

void Participant::setQuality(VideoQuality quality) {
  const auto delegate = mayAct("setQuality");
  if (!delegate || _isLocal) return;
  std::string streamId;
  for (const auto& [id, stream] : streams())
    if (stream->kind() == MediaType::video) streamId = id;
  {
    std::scoped_lock held(_state->stateLock);
    const bool isSame = std::exchange(_state->videoQuality, quality) == quality;
    // A stream that came since then knows nothing of it.
    if (isSame && (!_state->qualityAskedOf || _state->qualityAskedOf == streamId)) return;
    _state->qualityAskedOf = streamId;
  }
  if (streamId.empty()) return;
  delegate->setQuality(quality, streamId, _id, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->forgetQuality();
  });
}

/// It was refused: asking for the same is no repetition.
void Participant::forgetQuality() {
  std::scoped_lock held(_state->stateLock);
  _state->qualityAskedOf = "";
}

void Participant::captureImage(std::optional<double> height, std::optional<double> width,
                               ImageCompletion completion) {
  const auto delegate = mayAct("captureImage");
  if (!delegate) return;
  for (const auto& [id, stream] : streams())
    if (stream->kind() == MediaType::video && stream->videoTrack())
      return delegate->imageCapturer(stream->videoTrack(), height, width, std::move(completion));
  traceDebug("Not able to capture the image, because participant's webcam is off.");
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

/// Calls `event` with each listener on the main queue.
template <class Event>
void Participant::emit(Event event) {
  MainQueue::shared().async([self = shared_from_this(), event = std::move(event)] {
    self->_state->listeners.invoke(
        [&](ParticipantEventListener& listener) { event(listener, self); });
  });
}

void Participant::addStream(std::shared_ptr<MediaStream> stream) {
  stream->setMeetingActionValidatorSource(weak_from_this());
  if (const auto replaced = _state->streams.add(stream))
    MainQueue::shared().async(
        [self = shared_from_this(), replaced] { StreamMap::tellEnd(*replaced, self->_id); });
  emit([stream](auto& listener, auto& self) { listener.onStreamEnabled(stream, self); });
  tellEarlyE2EEState(stream->id());
}

std::shared_ptr<MediaStream> Participant::removeStream(const std::string& id) {
  auto stream = _state->streams.take(id);
  if (stream) tellGone(stream);
  return stream;
}

void Participant::removeAllStreams() {
  for (const auto& [id, gone] : _state->streams.takeAll()) tellGone(gone);
}

void Participant::tellGone(const std::shared_ptr<MediaStream>& stream) {
  MainQueue::shared().async([self = shared_from_this(), stream] {
    StreamMap::tellEnd(*stream, self->_id);
    self->_state->listeners.invoke(
        [&](ParticipantEventListener& listener) { listener.onStreamDisabled(stream, self); });
  });
}

void Participant::endStreams() {
  _state->streams.tellEnds(_id);
}

bool Participant::takeMetrics(const std::string& streamId, const StreamMetrics& metrics) {
  return _state->streams.takeMetrics(streamId, metrics);
}

void Participant::setMode(Mode mode) {
  std::scoped_lock held(_state->stateLock);
  _state->mode = mode;
}

void Participant::setPinState(ParticipantPinState pinState) {
  std::scoped_lock held(_state->stateLock);
  _state->pinState = pinState;
  if (_state->askedPins && _state->askedPins->cam.value_or(false) == pinState.cam.value_or(false) &&
      _state->askedPins->share.value_or(false) == pinState.share.value_or(false))
    _state->askedPins.reset();
}

void Participant::handleStreamStateChanged(StreamState state, const std::string& streamId) {
  _state->streams.tellState(state, streamId, _id);
}

/// The first frame of a publication may be encrypted before its stream is listed.
void Participant::handleE2EEStateChanged(E2EEState state, const std::string& streamID) {
  {
    std::scoped_lock held(_state->stateLock);
    auto& early = _state->earlyE2ee;
    if (early.size() >= mostEarlyStates) early.clear();
    early.insert_or_assign(streamID, state);
  }
  if (!tellEarlyE2EEState(streamID))
    trace([&] { return "Stream of which E2EE State updated not found for ID: " + streamID + "."; });
}

bool Participant::tellEarlyE2EEState(const std::string& streamID) {
  const auto listed = streams();
  const auto found = listed.find(streamID);
  if (found == listed.end()) return false;
  const auto stream = found->second;
  std::optional<E2EEState> state;
  {
    std::scoped_lock held(_state->stateLock);
    if (const auto node = _state->earlyE2ee.extract(streamID)) state = node.mapped();
  }
  if (state) {
    trace("Emitting E2EE_STATE_CHANGED Event",
          {{"state", text(*state)}, {"kind", text(stream->kind())}, {"peerId", _id}});
    emit([state = *state, stream](auto& listener, auto& self) {
      listener.e2eeStateChanged(self, state, stream);
    });
  }
  return true;
}

void Participant::handleMediaStatusChanged(const std::string& peerId, MediaType kind,
                                           bool newStatus) {
  emit([peerId, kind, newStatus](auto& listener, auto&) {
    listener.onMediaStatusChanged(peerId, kind, newStatus);
  });
}

void Participant::handleParticipantPause(const Dictionary& data) {
  const auto reason = text(data, "reason", "");
  notePause(data, reason, "Stream not found to pause! (");
  emit([kind = text(data, "kind", ""), reason](auto& listener, auto&) {
    listener.onStreamPaused(kind, reason);
  });
}

void Participant::handleParticipantResume(const Dictionary& data) {
  notePause(data, std::nullopt, "Stream not found to resume! (");
  emit([kind = text(data, "kind", ""), reason = text(data, "reason", "")](auto& listener, auto&) {
    listener.onStreamResumed(kind, reason);
  });
}

void Participant::notePause(const Dictionary& data, std::optional<std::string> reason,
                            const char* notFound) {
  const auto consumerId = text(data, "consumerId", "");
  const auto listed = streams();
  if (const auto found = listed.find(consumerId); found != listed.end())
    found->second->setPausedBy(std::move(reason));
  else
    traceDebug([&] { return notFound + consumerId + ")."; });
}

void Participant::handleTranscriptionReceived(const TranscriptionSegment& segment,
                                              const std::shared_ptr<Participant>& participant) {
  emit([segment, participant](auto& listener, auto&) {
    listener.onAgentTranscriptionReceived(segment, participant);
  });
}

AgentState Participant::keptAgentState() const {
  std::scoped_lock held(_state->stateLock);
  return _state->agentState;
}

void Participant::keepAgentState(AgentState state) {
  std::scoped_lock held(_state->stateLock);
  _state->agentState = state;
}

// ---- Agents ------------------------------------------------------------------------------------

AgentParticipant::AgentParticipant(const Peer& peer) : Participant(peer), _agentId(peer.agentId) {}

AgentState AgentParticipant::agentState() const {
  return keptAgentState();
}

void AgentParticipant::handleAgentStateChanged(AgentState state) {
  keepAgentState(state);
  emit([state](auto& listener, auto& self) { listener.onAgentStateChanged(state, self); });
}

void AgentParticipant::handleAgentMetrics(const Dictionary& metrics) {
  emit([metrics](auto& listener, auto& self) { listener.onAgentMetrics(metrics, self); });
}

}  // namespace kestrova
