#include <kestrova/model/Peer.h>
#include <kestrova/session/CharacterRegistry.h>
#include <kestrova/signalling/Response.h>
#include <kestrova/tracing/Trace.h>

#include <utility>
#include <vector>

namespace kestrova {

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
  std::scoped_lock held(_characterLock);
  std::erase_if(_known, [](const auto& entry) { return entry.second.expired(); });
  _known[character->characterId()] = character;
}

std::shared_ptr<AICharacter> CharacterRegistry::createCharacter(CharacterConfig config) {
  auto made = std::make_shared<AICharacter>(std::move(config));
  made->setMeeting(weak_from_this(), _validator);
  remember(made);
  return made;
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
  remember(character);
  character->setAwaitsJoin(true);
  const auto config = character->characterConfig();
  // In the order of arrival among the events that announce it, and that it left.
  auto onArrival = [weak = weak_from_this(), character](const Dictionary& reply) {
    MainQueue::shared().async([weak, character, reply] {
      if (const auto self = weak.lock()) self->joinAnswered(character, reply);
    });
  };
  _context->roomClient()->serviceRequests()->send(
      ServiceOperation::joinCharacter, config.toJson(),
      {.attributes = {{"characterId", config.characterId}}, .onArrival = std::move(onArrival)});
}

void CharacterRegistry::joinAnswered(const std::shared_ptr<AICharacter>& character,
                                     const Dictionary& reply) {
  if (!character->awaitsJoin()) return;  // it has left again
  character->setAwaitsJoin(false);
  const auto* data = dictionary(reply, "data");
  if (!data || !isStatusOK(reply).ok) return;
  character->update(*data);
  addInternalCharacter(character);
}

void CharacterRegistry::addInternalCharacter(const std::shared_ptr<AICharacter>& character) {
  remember(character);
  std::shared_ptr<AICharacter> replaced = character;
  {
    std::scoped_lock held(_characterLock);
    _characters[character->characterId()].swap(replaced);
  }
  // Announced by an id that the service has only now told: what came of it is this one's.
  if (!replaced || replaced == character) return;
  if (replaced->isJoined()) character->joinFromMeeting();
  for (const auto& [id, stream] : replaced->streams()) {
    replaced->removeStream(id);
    character->addStream(stream);
  }
}

// ---- What the service tells --------------------------------------------------------------------

void CharacterRegistry::addCharacter(const Peer& peer) {
  if (peer.id.empty()) return;
  auto joined = knownCharacter(peer.id);
  if (!joined) {
    joined = std::make_shared<AICharacter>(peer);
    joined->setMeeting(weak_from_this(), _validator);
    remember(joined);
  }
  {
    std::scoped_lock held(_characterLock);
    _characters[peer.id] = joined;
  }
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
  left->leaveFromMeeting();
  _context->emit([left](auto& listener) { listener.onCharacterLeft(left); });
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

void CharacterRegistry::removeAll() {
  for (const auto& [id, gone] : characters()) removedCharacter(id);
}

void CharacterRegistry::clear() {
  Characters gone;
  std::vector<std::shared_ptr<AICharacter>> known;
  {
    std::scoped_lock held(_characterLock);
    gone.swap(_characters);
    for (const auto& [id, weak] : _known)
      if (auto alive = weak.lock()) known.push_back(std::move(alive));
  }
  for (const auto& each : known) {
    each->setJoined(false);
    each->releaseKeptListeners();
  }
}

}  // namespace kestrova
