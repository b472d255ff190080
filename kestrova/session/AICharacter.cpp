#include <kestrova/model/MulticastDelegate.h>
#include <kestrova/model/Peer.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/platform/Values.h>
#include <kestrova/session/AICharacter.h>
#include <kestrova/session/CharacterRegistry.h>
#include <kestrova/session/StreamMap.h>

#include <mutex>
#include <set>
#include <utility>

namespace kestrova {

struct AICharacter::State {
  mutable std::mutex stateLock;  // for all below but the streams and the listeners
  CharacterConfig characterConfig;
  std::optional<Mode> mode;
  bool isJoined = false;
  int joins = 0;
  std::set<int> awaitedJoins;
  std::optional<int> joinsBeforeLeave;  // when the service was last asked to take it out
  std::weak_ptr<CharacterRegistry> registry;
  std::weak_ptr<MeetingActionValidating> meetingActionValidator;

  StreamMap streams;
  CharacterMulticasteDelegate charListeners;

  template <class Read>
  auto read(Read read) const {
    std::scoped_lock held(stateLock);
    return read(*this);
  }
};

AICharacter::AICharacter(CharacterConfig config) : _state(std::make_unique<State>()) {
  _state->characterConfig = std::move(config);
}

AICharacter::AICharacter(const Peer& peer) : AICharacter(CharacterConfig{.characterId = peer.id}) {
  describe(peer);
}

AICharacter::~AICharacter() = default;

CharacterConfig AICharacter::characterConfig() const {
  return _state->read([](const State& state) { return state.characterConfig; });
}
std::string AICharacter::characterId() const {
  return _state->read([](const State& state) { return state.characterConfig.characterId; });
}
std::string AICharacter::displayName() const {
  return characterConfig().displayName.value_or("");
}
std::optional<std::string> AICharacter::interactionId() const {
  return characterConfig().interactionId;
}
std::optional<std::string> AICharacter::characterMode() const {
  return characterConfig().characterMode;
}
std::optional<std::string> AICharacter::characterRole() const {
  return characterConfig().characterRole;
}
std::vector<std::string> AICharacter::knowledgeBases() const {
  return characterConfig().knowledgeBases.value_or(std::vector<std::string>());
}
std::vector<std::string> AICharacter::metaData() const {
  return characterConfig().metaData.value_or(std::vector<std::string>());
}
std::optional<Mode> AICharacter::mode() const {
  return _state->read([](const State& state) { return state.mode; });
}
bool AICharacter::isJoined() const {
  return _state->read([](const State& state) { return state.isJoined; });
}
std::map<std::string, std::shared_ptr<MediaStream>> AICharacter::streams() const {
  return _state->streams.all();
}

void AICharacter::addEventListener(const std::shared_ptr<CharacterEventListener>& listener) {
  _state->charListeners.add(listener);
}
ListenerHandle AICharacter::listen(std::shared_ptr<CharacterEventListener> listener) {
  return _state->charListeners.keep(std::move(listener));
}
ListenerHandle AICharacter::listen(CharacterEvents events) {
  return listen(makeListener(std::move(events)));
}
void AICharacter::removeEventListener(const std::shared_ptr<CharacterEventListener>& listener) {
  _state->charListeners.remove(listener);
}
void AICharacter::removeAllEventListeners() {
  _state->charListeners.removeAll();
}
void AICharacter::releaseKeptListeners() {
  _state->charListeners.releaseKept();
}
void AICharacter::dismissListeners() {
  _state->charListeners.removeAll();
  _state->charListeners.releaseKept();
  _state->streams.dismissListeners();
}

// ---- What is asked of it -----------------------------------------------------------------------

std::shared_ptr<MeetingActionValidating> AICharacter::meetingActionValidator() const {
  return _state->read([](const State& state) { return state.meetingActionValidator.lock(); });
}

void AICharacter::setMeeting(std::weak_ptr<CharacterRegistry> registry,
                             std::weak_ptr<MeetingActionValidating> validator) {
  std::scoped_lock held(_state->stateLock);
  _state->registry = std::move(registry);
  _state->meetingActionValidator = std::move(validator);
}

std::shared_ptr<CharacterRegistry> AICharacter::mayAct(const char* methodName) const {
  const auto validator = meetingActionValidator();
  if (!validator || !validator->allows(methodName)) return nullptr;
  return _state->read([](const State& state) { return state.registry.lock(); });
}

void AICharacter::join() {
  if (const auto registry = mayAct("join")) registry->join(shared_from_this());
}
void AICharacter::leave() {
  const auto registry = mayAct("leave");
  if (!registry) return;
  beginLeave();
  registry->ask(ServiceOperation::leaveCharacter, *this);
}
void AICharacter::sendMessage(const std::string& text) {
  if (const auto registry = mayAct("sendMessage"))
    registry->ask(ServiceOperation::sendCharacterMessage, *this, {{"text", text}});
}
void AICharacter::interrupt() {
  if (const auto registry = mayAct("interrupt"))
    registry->ask(ServiceOperation::interruptCharacter, *this);
}

// ---- What the meeting tells --------------------------------------------------------------------

/// Calls `event` with each listener on the main queue.
template <class Event>
void AICharacter::emit(Event event) {
  MainQueue::shared().async([self = shared_from_this(), event = std::move(event)] {
    self->_state->charListeners.invoke([&](auto& listener) { event(listener, self); });
  });
}

void AICharacter::update(const Dictionary& json) {
  std::scoped_lock held(_state->stateLock);
  _state->characterConfig.update(json);
  if (const auto mode = modeFromText(text(json, "mode", ""))) _state->mode = mode;
}

int AICharacter::beginJoin() {
  std::scoped_lock held(_state->stateLock);
  _state->awaitedJoins.insert(++_state->joins);
  return _state->joins;
}

bool AICharacter::awaitsJoin() const {
  return _state->read([](const State& state) { return !state.awaitedJoins.empty(); });
}

bool AICharacter::endJoin(int number) {
  std::scoped_lock held(_state->stateLock);
  return _state->awaitedJoins.erase(number) == 1;
}

void AICharacter::beginLeave() {
  std::scoped_lock held(_state->stateLock);
  _state->joinsBeforeLeave = _state->joins;
}

void AICharacter::forgetJoins() {
  std::scoped_lock held(_state->stateLock);
  _state->isJoined = false;
  _state->awaitedJoins.clear();
  _state->joinsBeforeLeave.reset();
}

void AICharacter::describe(const Peer& peer) {
  std::scoped_lock held(_state->stateLock);
  auto& config = _state->characterConfig;
  if (!peer.displayName.empty()) config.displayName = peer.displayName;
  if (peer.interactionId) config.interactionId = peer.interactionId;
  if (const auto mode = modeFromText(peer.mode)) _state->mode = mode;
}

void AICharacter::joinFromMeeting() {
  {
    std::scoped_lock held(_state->stateLock);
    _state->isJoined = true;
  }
  emit([](auto& listener, auto& self) { listener.onCharacterJoined(self); });
}

void AICharacter::leaveFromMeeting() {
  {
    std::scoped_lock held(_state->stateLock);
    _state->isJoined = false;
    // What it was asked to leave does not end a join that was asked for since.
    const int last = std::exchange(_state->joinsBeforeLeave, {}).value_or(_state->joins);
    std::erase_if(_state->awaitedJoins, [&](int number) { return number <= last; });
  }
  emit([](auto& listener, auto& self) { listener.onCharacterLeft(self); });
}

void AICharacter::handleStreamStateChanged(StreamState state, const std::string& streamId) {
  _state->streams.tellState(state, streamId, characterId());
}

void AICharacter::characterMessageFromMeeting(const CharacterMessage& message) {
  emit([message](auto& listener, auto&) { listener.onCharacterMessage(message); });
}

void AICharacter::characterStateFromMeeting(const CharacterStateChange& change) {
  emit([change](auto& listener, auto&) { listener.onCharacterStateChanged(change); });
}

void AICharacter::addStream(std::shared_ptr<MediaStream> stream) {
  stream->setMeetingActionValidatorSource(weak_from_this());
  if (const auto replaced = _state->streams.add(stream))
    MainQueue::shared().async([self = shared_from_this(), replaced] {
      StreamMap::tellEnd(*replaced, self->characterId());
    });
  emit([stream](auto& listener, auto& self) { listener.onStreamEnabled(stream, self); });
}

std::shared_ptr<MediaStream> AICharacter::removeStream(const std::string& id) {
  auto stream = _state->streams.take(id);
  if (stream) tellGone(stream);
  return stream;
}

void AICharacter::removeAllStreams() {
  for (const auto& [id, gone] : _state->streams.takeAll()) tellGone(gone);
}

void AICharacter::tellGone(const std::shared_ptr<MediaStream>& stream) {
  MainQueue::shared().async([self = shared_from_this(), stream] {
    StreamMap::tellEnd(*stream, self->characterId());
    self->_state->charListeners.invoke(
        [&](CharacterEventListener& listener) { listener.onStreamDisabled(stream, self); });
  });
}

std::map<std::string, std::shared_ptr<MediaStream>> AICharacter::handOverStreams() {
  auto streams = _state->streams.takeAll();
  for (const auto& [id, gone] : streams)
    emit([stream = gone](auto& listener, auto& self) { listener.onStreamDisabled(stream, self); });
  return streams;
}

void AICharacter::endStreams() {
  _state->streams.tellEnds(characterId());
}

bool AICharacter::takeMetrics(const std::string& streamId, const StreamMetrics& metrics) {
  return _state->streams.takeMetrics(streamId, metrics);
}

}  // namespace kestrova
