#include <kestrova/model/MulticastDelegate.h>
#include <kestrova/model/Peer.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/platform/Values.h>
#include <kestrova/session/AICharacter.h>
#include <kestrova/session/CharacterRegistry.h>
#include <kestrova/session/StreamMap.h>

#include <mutex>
#include <utility>

namespace kestrova {

struct AICharacter::State {
  mutable std::mutex stateLock;  // for all below but the streams and the listeners
  CharacterConfig characterConfig;
  std::optional<Mode> mode;
  bool isJoined = false;
  bool awaitsJoin = false;
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

AICharacter::AICharacter(const Peer& peer)
    : AICharacter(CharacterConfig{.interactionId = peer.interactionId,
                                  .characterId = peer.id,
                                  .displayName = peer.displayName}) {
  _state->mode = modeFromText(peer.mode);
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
  if (const auto registry = mayAct("leave")) registry->ask(ServiceOperation::leaveCharacter, *this);
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
}

void AICharacter::setJoined(bool joined) {
  std::scoped_lock held(_state->stateLock);
  _state->isJoined = joined;
}

bool AICharacter::awaitsJoin() const {
  return _state->read([](const State& state) { return state.awaitsJoin; });
}

void AICharacter::setAwaitsJoin(bool awaits) {
  std::scoped_lock held(_state->stateLock);
  _state->awaitsJoin = awaits;
}

void AICharacter::joinFromMeeting() {
  setJoined(true);
  emit([](auto& listener, auto& self) { listener.onCharacterJoined(self); });
}

void AICharacter::leaveFromMeeting() {
  {
    std::scoped_lock held(_state->stateLock);
    _state->isJoined = false;
    _state->awaitsJoin = false;
  }
  removeAllStreams();
  emit([](auto& listener, auto& self) { listener.onCharacterLeft(self); });
}

void AICharacter::characterMessageFromMeeting(const CharacterMessage& message) {
  emit([message](auto& listener, auto&) { listener.onCharacterMessage(message); });
}

void AICharacter::characterStateFromMeeting(const CharacterStateChange& change) {
  emit([change](auto& listener, auto&) { listener.onCharacterStateChanged(change); });
}

void AICharacter::addStream(std::shared_ptr<MediaStream> stream) {
  stream->setMeetingActionValidatorSource(weak_from_this());
  _state->streams.add(stream);
  emit([stream](auto& listener, auto& self) { listener.onStreamEnabled(stream, self); });
}

std::shared_ptr<MediaStream> AICharacter::removeStream(const std::string& id) {
  auto stream = _state->streams.take(id);
  if (stream)
    emit([stream](auto& listener, auto& self) { listener.onStreamDisabled(stream, self); });
  return stream;
}

void AICharacter::removeAllStreams() {
  for (auto& [id, gone] : _state->streams.takeAll())
    emit([stream = gone](auto& listener, auto& self) { listener.onStreamDisabled(stream, self); });
}

}  // namespace kestrova
