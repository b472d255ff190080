#include <kestrova/model/Peer.h>
#include <kestrova/session/CharacterRegistry.h>
#include <kestrova/signalling/Response.h>
#include <kestrova/tracing/Trace.h>

#include <utility>
#include <vector>

namespace kestrova {
namespace {

bool isSame(const std::weak_ptr<AICharacter>& one, const std::shared_ptr<AICharacter>& other) {
  return !one.owner_before(other) && !other.owner_before(one);
}

}  // namespace

CharacterRegistry::Characters CharacterRegistry::characters() const {
  std::scoped_lock held(_characterLock);
  return _characters;
}

std::shared_ptr<AICharacter> CharacterRegistry::character(const std::string& id) const {
  std::scoped_lock held(_characterLock);
  const auto found = _characters.find(id);
  return found == _characters.end() ? nullptr : found->second;
}

std::shared_ptr<AICharacter> CharacterRegistry::knownCharacter(const std::string& id) const {
  if (auto here = character(id)) return here;
  std::scoped_lock held(_characterLock);
  const auto found = _known.find(id);
  return found == _known.end() ? nullptr : found->second.lock();
}

void CharacterRegistry::remember(const std::shared_ptr<AICharacter>& character) {
  const auto id = character->characterId();
  if (id.empty()) return;
  std::scoped_lock held(_characterLock);
  std::erase_if(_known, [&](const auto& entry) {
    // By another id, too, where the service has given it a new one.
    return entry.second.expired() || isSame(entry.second, character);
  });
  _known[id] = character;
}

std::shared_ptr<AICharacter> CharacterRegistry::createCharacter(CharacterConfig config) {
  const auto made = adopt(std::make_shared<AICharacter>(std::move(config)));
  const auto earlier = knownCharacter(made->characterId());
  // One that is on its way in is the one that will be announced.
  if (!earlier || !earlier->awaitsJoin()) remember(made);
  return made;
}

std::vector<std::shared_ptr<AICharacter>> CharacterRegistry::everyCharacter() const {
  std::vector<std::shared_ptr<AICharacter>> all;
  std::scoped_lock held(_characterLock);
  for (const auto& weak : _every)
    if (auto alive = weak.lock()) all.push_back(std::move(alive));
  return all;
}

/// Makes it one of this meeting.
std::shared_ptr<AICharacter> CharacterRegistry::adopt(std::shared_ptr<AICharacter> character) {
  character->setMeeting(weak_from_this(), _validator);
  std::scoped_lock held(_characterLock);
  std::erase_if(_every, [](const auto& each) { return each.expired(); });
  _every.push_back(character);
  return character;
}

// ---- What is asked of the service --------------------------------------------------------------

void CharacterRegistry::ask(ServiceOperation operation, const AICharacter& character,
                            Dictionary more) {
  more["characterId"] = character.characterId();
  const auto& requests = _context->roomClient()->serviceRequests();
  requests->send(operation, std::move(more),
                 {.attributes = {{"characterId", character.characterId()}}});
}

void CharacterRegistry::join(const std::shared_ptr<AICharacter>& character) {
  const auto config = character->characterConfig();
  if (config.characterId.empty())
    return _context->onError(
        KestrovaError::CHARACTER_JOIN_FAILED.withCause("a character needs an id"));
  remember(character);
  const int number = character->beginJoin();
  // In the order of arrival among the events that announce it, and that it left.
  auto onArrival = [weak = weak_from_this(), character, number](const Dictionary& reply) {
    MainQueue::shared().async([weak, character, number, reply] {
      if (const auto self = weak.lock()) self->joinAnswered(character, number, reply);
    });
  };
  _context->roomClient()->serviceRequests()->send(
      ServiceOperation::joinCharacter, config.toJson(),
      {.attributes = {{"characterId", config.characterId}}, .onArrival = std::move(onArrival)});
}

void CharacterRegistry::joinAnswered(const std::shared_ptr<AICharacter>& character, int number,
                                     const Dictionary& reply) {
  const bool isAwaited = character->endJoin(number);  // or it has left again
  const auto* data = dictionary(reply, "data");
  if (!isAwaited || !data || !isStatusOK(reply).ok) return;
  character->update(*data);
  addInternalCharacter(character);
}

void CharacterRegistry::addInternalCharacter(const std::shared_ptr<AICharacter>& character) {
  remember(character);
  const auto id = character->characterId();
  const auto announced = this->character(id);
  const bool wasAnnounced = announced && announced != character && announced->isJoined();
  // Announced by an id that the service has only now told: what came of it is this one's.
  const auto streams = wasAnnounced ? announced->handOverStreams() : Streams();
  if (announced && announced != character) removedCharacter(id);
  {
    std::scoped_lock held(_characterLock);
    std::erase_if(_characters, [&](const auto& entry) { return entry.second == character; });
    _characters[id] = character;
  }
  if (wasAnnounced) tellJoined(character);
  for (const auto& [streamId, stream] : streams) character->addStream(stream);
}

// ---- What the service tells --------------------------------------------------------------------

void CharacterRegistry::addCharacter(const Peer& peer) {
  if (peer.id.empty()) return;
  auto joined = knownCharacter(peer.id);
  if (!joined) {
    joined = adopt(std::make_shared<AICharacter>(peer));
    remember(joined);
  }
  joined->describe(peer);
  {
    std::scoped_lock held(_characterLock);
    _characters[peer.id] = joined;
  }
  tellJoined(joined);
}

void CharacterRegistry::tellJoined(const std::shared_ptr<AICharacter>& joined) {
  joined->joinFromMeeting();
  _context->emit([joined](auto& listener) { listener.onCharacterJoined(joined); });
}

void CharacterRegistry::removedCharacter(const std::string& characterId) {
  std::shared_ptr<AICharacter> left;
  {
    std::scoped_lock held(_characterLock);
    auto node = _characters.extract(characterId);
    if (node.empty()) return;
    left = std::move(node.mapped());
  }
  left->removeAllStreams();
  _context->emit([left](auto& listener) { listener.onCharacterLeft(left); });
  left->leaveFromMeeting();
}

void CharacterRegistry::characterMessageReceived(const CharacterMessage& message) {
  const auto speaker = character(message.characterId);
  if (!speaker) return;
  speaker->characterMessageFromMeeting(message);
  _context->emit([message](auto& listener) { listener.onCharacterMessage(message); });
}

void CharacterRegistry::characterStateChanged(const CharacterStateChange& change) {
  const auto changed = character(change.id);
  if (!changed) return;
  changed->characterStateFromMeeting(change);
  _context->emit([change](auto& listener) { listener.onCharacterStateChanged(change); });
}

bool CharacterRegistry::addStream(const std::shared_ptr<MediaStream>& stream,
                                  const std::string& characterId) {
  const auto owner = character(characterId);
  if (!owner) return false;
  stream->setDelegate(_context->existingRoomClient());
  owner->addStream(stream);
  return true;
}

void CharacterRegistry::removeStream(const std::string& id) {
  for (const auto& [characterId, owner] : characters())
    if (owner->removeStream(id)) return;
}

void CharacterRegistry::handleStreamStateChange(StreamState state, const std::string& characterId,
                                                const std::string& trackId) {
  if (const auto owner = character(characterId)) owner->handleStreamStateChanged(state, trackId);
}

bool CharacterRegistry::takeMetrics(const StreamMeasurement& measured) {
  const auto owner = character(measured.ownerId);
  return owner && owner->takeMetrics(measured.streamId, measured.metrics);
}

void CharacterRegistry::endStreams() {
  for (const auto& each : everyCharacter()) each->endStreams();
}

void CharacterRegistry::removeAll() {
  for (const auto& [id, gone] : characters()) removedCharacter(id);
  // An answer that comes now is about the meeting before.
  for (const auto& each : everyCharacter()) each->forgetJoins();
}

void CharacterRegistry::dismissListeners() {
  for (const auto& each : everyCharacter()) each->dismissListeners();
}

void CharacterRegistry::clear() {
  Characters gone;
  {
    std::scoped_lock held(_characterLock);
    gone.swap(_characters);
  }
  const auto every = everyCharacter();
  for (const auto& each : every) each->forgetJoins();
  endStreams();
  // Behind what was told to them before.
  MainQueue::shared().async([every] {
    for (const auto& each : every) each->releaseKeptListeners();
  });
}

}  // namespace kestrova
