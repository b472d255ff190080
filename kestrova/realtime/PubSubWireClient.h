#pragma once

#include <kestrova/platform/Await.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/platform/Scheduler.h>
#include <kestrova/realtime/Deadlines.h>
#include <kestrova/realtime/FastwsMessages.h>
#include <kestrova/realtime/PubSubTransport.h>
#include <kestrova/realtime/PubSubWireTypes.h>
#include <kestrova/realtime/TopicTracking.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova {

/// Speaks the protocol of topic messages over a transport: matches acknowledgements to requests,
/// holds operations back while the transport is down, subscribes again after a loss, tells history
/// from live messages, finds the holes in their numbers, and answers the server's pings.
///
/// It knows topics, requests and frames; listeners are the router's. Operations may be called from
/// any thread and resume the caller on its own executor; all state lives on the queue.
class PubSubWireClient : public std::enable_shared_from_this<PubSubWireClient> {
public:
  static constexpr std::chrono::milliseconds operationTimeout{30'000};
  static constexpr std::uint32_t defaultPingIntervalMs = 30'000;
  /// A longer frame is refused before it is sent, since it would end the connection for everything
  /// else, too. The service adds some bytes as it passes a message on, and its limit is 16 MiB.
  static constexpr std::size_t mostFrameBytes = 16 * 1024 * 1024 - 64 * 1024;

  using Messages = std::vector<FastwsServerMessage>;

  static std::shared_ptr<PubSubWireClient> make(std::shared_ptr<PubSubTransport> transport,
                                                std::shared_ptr<SerialQueue> queue);
  ~PubSubWireClient();

  // Set before the first operation; called on the queue. What they are given refers to the frame,
  // and is good for the time of the call.
  std::function<void(std::string_view topic, const Messages&)> onLiveMessages;
  std::function<void(std::string_view requestId, std::string_view topic, const Messages&,
                     bool isLast)>
      onHistoryMessages;
  std::function<void(std::string_view topic, std::uint64_t droppedCount)> onMessageDrop;
  /// The server has agreed to a subscription that was made again after a loss.
  std::function<void(std::string_view requestId, std::string_view topic)> onReplayed;

  /// Completes when the server has agreed, or with the history: its first batch, or its last when
  /// it is to be waited for. The agreement is enough in any case. \throws PubSubWireError
  Task<void> subscribe(FastwsSubscribeParams params, bool waitForHistoryComplete);
  /// \returns the message's id, as the server gave it \throws PubSubWireError
  Task<std::string> publish(FastwsPublishParams params);
  /// Forgets all subscriptions to the topic, and tells the server. \throws PubSubWireError
  /// \param isWanted asked on the queue whether somebody wants the topic again: then nothing is
  /// done
  Task<void> sendUnsubscribe(std::string topic, std::string requestId,
                             std::function<bool()> isWanted = {});
  /// Forgets one subscription; the server isn't told.
  void removeSubscription(std::string requestId);
  /// Ends everything that waits, and the transport, for good.
  void close();

private:
  struct SubscriptionEntry {
    FastwsSubscribeParams params;
    bool established = false;  ///< the frame has been handed to the transport
  };
  /// The outcome of one operation: with no error it has succeeded.
  struct Resolution {
    std::optional<std::string> error;
    std::string messageId;
  };
  using Settle = std::function<void(Resolution)>;
  struct PendingRequest {
    enum class Kind { subscribe, subscribeReplay, publish, unsubscribe };
    Kind kind;
    std::string topic;
    Settle onSettle;
    bool waitForHistoryComplete = false;
    Deadlines::Id timeout = 0;
  };
  struct QueuedOp {
    std::uint64_t id;
    Work send;
    std::function<void(const char* error)> fail;
    Deadlines::Id timeout;
  };

  PubSubWireClient(std::shared_ptr<PubSubTransport> transport, std::shared_ptr<SerialQueue> queue);
  void attach();
  template <class Step>
  Task<Resolution> perform(Step step, const char* whenGone);
  static Task<std::string> acknowledged(Task<Resolution> waiting);
  static Task<void> settled(Task<Resolution> waiting);

  // On the queue.
  void subscribeLocked(FastwsSubscribeParams params, bool waitForHistoryComplete, Settle settle);
  void publishLocked(FastwsPublishParams params, Settle settle);
  void unsubscribeLocked(const std::string& topic, std::string requestId,
                         const std::function<bool()>& isWanted, const Settle& settle);
  void enqueueOrRun(Work send, std::function<void(const char* error)> fail);
  void queuedTimedOut(std::uint64_t id);
  void registerPending(const std::string& requestId, PendingRequest pending);
  void timedOut(const std::string& requestId);
  std::optional<PendingRequest> takePending(std::string_view requestId);
  void sendMessage(const FastwsClientMessage& message);

  void handleOpen();
  void replay(const std::vector<std::string>& requestIds);
  void handleFrame(ByteView frame);
  void handle(const FastwsAck& ack);
  void handle(const FastwsServerBatch& batch);
  void handle(const FastwsWelcome& welcome);
  void handle(const FastwsPing& ping);
  void handleHistoryBatch(const FastwsServerBatch& batch);
  void handleLiveBatch(const FastwsServerBatch& batch);
  void restartServerPingWatchdog();
  void serverPingTimedOut();
  void handleClose(bool unexpected);
  void closeLocked();
  void failPendings(const char* error);
  void failQueued(const char* error);
  void forgetTopics();
  void forgetTopic(const std::string& topic);

  const std::shared_ptr<PubSubTransport> _transport;
  const std::shared_ptr<SerialQueue> _queue;
  const std::shared_ptr<Scheduler> _scheduler;
  const std::shared_ptr<Deadlines> _deadlines;

  std::map<std::string, SubscriptionEntry, std::less<>> _subscriptions;  // by request id
  std::map<std::string, PendingRequest, std::less<>> _pendings;          // by request id
  TopicReplays _replays;
  TopicSequences _sequences;
  std::deque<QueuedOp> _queuedOps;
  std::uint64_t _lastQueuedId = 0;
  bool _isOpen = false;
  bool _hasClosed = false;
  bool _everOpened = false;
  std::uint32_t _serverPingIntervalMs = 0;
  std::uint64_t _lastServerPingSeq = 0;
  std::unique_ptr<Timer> _serverPingWatchdog;
  std::uint64_t _serverPingWatch = 0;  ///< which one is the present one
};

}  // namespace kestrova
