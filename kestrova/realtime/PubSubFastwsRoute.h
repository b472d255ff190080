#pragma once

#include <kestrova/platform/Queue.h>
#include <kestrova/realtime/PubSubDeliveries.h>
#include <kestrova/realtime/PubSubRouting.h>
#include <kestrova/realtime/PubSubWireClient.h>

#include <memory>
#include <mutex>
#include <string>

namespace kestrova {

/// Topic messages over a topic server of their own.
class PubSubFastwsRoute : public std::enable_shared_from_this<PubSubFastwsRoute> {
public:
  using Listener = std::shared_ptr<PubSubMessageListener>;

  explicit PubSubFastwsRoute(std::shared_ptr<PubSubRouting> routing);

  /// \throws PubSubError
  Task<void> publish(std::string topic, std::string message, Dictionary options,
                     Dictionary payload);
  Task<void> subscribe(std::string topic, Listener listener, PubSubSubscribeOptions options);
  Task<void> unsubscribe(std::string topic, Listener listener);
  /// Closes the connection; the next operation makes another.
  void teardown();

private:
  /// The three operations' own words.
  struct Operation;
  static const Operation publishing;
  static const Operation subscribing;
  static const Operation unsubscribing;

  std::shared_ptr<PubSubWireClient> ensureWireClient();
  bool isMadeForAnother(const std::string& url);
  std::shared_ptr<PubSubWireClient> makeWireClient(const std::string& url);
  FastwsSubscribeParams makeSubscribeParams(std::string topic, std::string requestId,
                                            const PubSubSubscribeOptions& validated) const;
  FastwsPublishParams makePublishParams(std::string topic, std::string message,
                                        const Dictionary& options, const Dictionary& payload) const;
  [[noreturn]] void fail(const Operation& operation, const std::string& detail) const;
  [[noreturn]] void reportAndFail(const Operation& operation, const std::string& detail) const;

  // On the queue of the wire client.
  void handleFastwsLive(std::string_view topic, const PubSubWireClient::Messages& messages);
  void handleFastwsHistory(std::string_view requestId, std::string_view topic,
                           const PubSubWireClient::Messages& messages, bool isLast);
  void handleFastwsReplayed(std::string_view requestId, std::string_view topic);
  void handleFastwsDrop(std::string_view topic, std::uint64_t droppedCount);

  const std::shared_ptr<PubSubRouting> _routing;

  std::mutex _lock;  // for the fields below
  std::shared_ptr<SerialQueue> _pubsubQueue;
  std::shared_ptr<PubSubWireClient> _wireClient;
  std::string _url;  ///< for which it was made

  PubSubDeliveries _deliveries;  // on the queue
};

}  // namespace kestrova
