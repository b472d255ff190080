#include <kestrova/media/AppData.h>
#include <kestrova/media/MediaRegistry.h>

#include <utility>

namespace kestrova {
namespace {

template <class Map>
auto values(const Map& map) {
  std::vector<typename Map::mapped_type> list;
  list.reserve(map.size());
  for (const auto& [key, value] : map) list.push_back(value);
  return list;
}

template <class Map>
typename Map::mapped_type find(const Map& map, const std::string& key) {
  const auto found = map.find(key);
  return found == map.end() ? nullptr : found->second;
}

}  // namespace

void MediaRegistry::add(const std::shared_ptr<Producer>& producer) {
  _stateQueue->sync([&] { _producers[producer->id()] = producer; });
}

void MediaRegistry::removeProducer(const std::string& id) {
  _stateQueue->sync([&] { _producers.erase(id); });
}

std::shared_ptr<Producer> MediaRegistry::producer(const std::string& id) const {
  return _stateQueue->sync([&] { return find(_producers, id); });
}

std::shared_ptr<Producer> MediaRegistry::getProducerByKind(MediaKind kind, bool share) const {
  for (const auto& producer : producers())
    if (producer->kind() == kind && isShare(producer->appData()) == share) return producer;
  return nullptr;
}

std::vector<std::shared_ptr<Producer>> MediaRegistry::producers() const {
  return _stateQueue->sync([&] { return values(_producers); });
}

std::vector<std::shared_ptr<Producer>> MediaRegistry::takeProducers() {
  return _stateQueue->sync([&] { return values(std::exchange(_producers, {})); });
}

void MediaRegistry::add(const std::shared_ptr<Consumer>& consumer) {
  _stateQueue->sync([&] {
    _consumers[consumer->id()] = consumer;
    _consumersByTrackId[consumer->track()->id()] = consumer;
  });
}

std::shared_ptr<Consumer> MediaRegistry::consumer(const std::string& id) const {
  return _stateQueue->sync([&] { return find(_consumers, id); });
}

std::shared_ptr<Consumer> MediaRegistry::consumerByTrackId(const std::string& trackId) const {
  return _stateQueue->sync([&] { return find(_consumersByTrackId, trackId); });
}

std::shared_ptr<Consumer> MediaRegistry::takeConsumer(const std::string& id) {
  return _stateQueue->sync([&]() -> std::shared_ptr<Consumer> {
    auto node = _consumers.extract(id);
    if (node.empty()) return nullptr;
    _consumersByTrackId.erase(node.mapped()->track()->id());
    return std::move(node.mapped());
  });
}

std::vector<std::shared_ptr<Consumer>> MediaRegistry::consumers() const {
  return _stateQueue->sync([&] { return values(_consumers); });
}

std::vector<std::shared_ptr<Consumer>> MediaRegistry::takeConsumers() {
  return _stateQueue->sync([&] {
    _consumersByTrackId.clear();
    return values(std::exchange(_consumers, {}));
  });
}

}  // namespace kestrova
