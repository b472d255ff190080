#pragma once

#include <kestrova/media/MediaRegistry.h>
#include <kestrova/media/Transports.h>
#include <kestrova/signalling/RoomContext.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kestrova {

/// Turns the streams that the service announces into consumers on the receive transport, and closes
/// them again.
class Consuming : public ConsumerDelegate, public std::enable_shared_from_this<Consuming> {
public:
  Consuming(std::shared_ptr<RoomContext> context, std::shared_ptr<MediaRegistry> registry,
            std::shared_ptr<Transports> transports);

  /// Called on the socket's queue, so that what the service says later about the same consumer
  /// finds it. Waits for the engine, a few ms.
  /// \param notification the whole announcement
  /// \throws std::exception when no consumer could be made
  void handleNewConsumer(const Dictionary& notification);
  /// The service closed a consumer: its stream ends now and is taken away a moment later.
  void handleConsumerClosed(const std::string& consumerId);
  /// Closes one consumer; an unknown id does nothing.
  void removeTrack(const std::string& consumerId);
  /// Closes all of them; the transport stays.
  /// \returns their ids
  std::vector<std::string> closeAllConsumers();
  /// The same when their transport is closed next, which takes them along.
  std::vector<std::string> letGoOfAllConsumers();

  /// The service paused or resumed a consumer, or sends other layers of it.
  void handleConsumerPaused(const std::string& consumerId);
  void handleConsumerResumed(const std::string& consumerId);
  void handleConsumerLayersChanged(const std::string& consumerId, const Dictionary& data);

  void recordUnsupportedCodec(VideoCodec codec);
  /// Codecs that others can't decode, without repeats, in order of arrival.
  std::vector<VideoCodec> unsupportedCodecs() const;

  void onTransportClose(const std::shared_ptr<Consumer>& consumer) override;

private:
  std::shared_ptr<Consumer> consumeTrack(const Dictionary& data);

  const std::shared_ptr<RoomContext> _context;
  const std::shared_ptr<MediaRegistry> _registry;
  const std::shared_ptr<Transports> _transports;

  mutable std::mutex _unsupportedCodecsLock;
  std::vector<VideoCodec> _unsupportedCodecsList;
};

}  // namespace kestrova
