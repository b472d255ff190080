#pragma once

#include <kestrova/platform/Mediasoup.h>
#include <kestrova/platform/Queue.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kestrova {

/// Everything that is published and received just now. All of it lives on the room's state queue,
/// on which every operation waits its turn: never call one from within that queue.
class MediaRegistry {
public:
  explicit MediaRegistry(std::shared_ptr<SerialQueue> stateQueue)
      : _stateQueue(std::move(stateQueue)) {}

  void add(const std::shared_ptr<Producer>& producer);
  void removeProducer(const std::string& id);
  std::shared_ptr<Producer> producer(const std::string& id) const;
  /// The first producer of that kind that is a screen share, or is none.
  std::shared_ptr<Producer> getProducerByKind(MediaKind kind, bool isShare) const;
  std::vector<std::shared_ptr<Producer>> producers() const;
  /// Empties the map and gives what was in it.
  std::vector<std::shared_ptr<Producer>> takeProducers();

  void add(const std::shared_ptr<Consumer>& consumer);
  std::shared_ptr<Consumer> consumer(const std::string& id) const;
  std::shared_ptr<Consumer> consumerByTrackId(const std::string& trackId) const;
  /// Takes the consumer out, so that one caller alone gets to close it.
  std::shared_ptr<Consumer> takeConsumer(const std::string& id);
  std::vector<std::shared_ptr<Consumer>> consumers() const;
  std::vector<std::shared_ptr<Consumer>> takeConsumers();

private:
  const std::shared_ptr<SerialQueue> _stateQueue;
  std::map<std::string, std::shared_ptr<Producer>> _producers;
  std::map<std::string, std::shared_ptr<Consumer>> _consumers;
  std::map<std::string, std::shared_ptr<Consumer>> _consumersByTrackId;
};

}  // namespace kestrova
