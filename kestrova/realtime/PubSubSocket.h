#pragma once

#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/realtime/PubSubTransport.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace kestrova {

/// Keeps one WebSocket to the topic server up: connects, tells an unwanted end from a wanted one,
/// and connects again after a growing pause. It knows nothing of what the frames mean.
///
/// Any thread may call; everything happens on the queue.
class PubSubSocket final : public PubSubTransport,
                           public std::enable_shared_from_this<PubSubSocket> {
public:
  static std::shared_ptr<PubSubSocket> make(std::string url, std::shared_ptr<SerialQueue> queue);
  ~PubSubSocket() override;

  void connect() override;
  void send(Bytes frame, SendHandler completion) override;
  void close(bool intentional) override;
  void reconnect() override;

  /// The pause before an attempt: 1 s, doubled each time up to 30 s, give or take a quarter, and
  /// never below 1 s.
  /// \param attempt how many have failed before
  /// \param random from 0 to 1
  static std::chrono::milliseconds reconnectDelay(int attempt, double random);

private:
  PubSubSocket(std::string url, std::shared_ptr<SerialQueue> queue);
  template <class Step>
  void onQueue(Step step);

  // On the queue.
  void connectLocked();
  WebSocketTask::Events events(std::uint64_t generation);
  void receive(std::uint64_t generation);
  void received(std::variant<WebSocketTask::Message, WebSocketTask::Error> result,
                std::uint64_t generation);
  void take(const WebSocketTask::Message& message);
  void markOpenLocked(std::uint64_t generation);
  void sendLocked(Bytes frame, const SendHandler& completion);
  void handleConnectionEndedLocked(std::uint64_t generation);
  void teardownConnectionLocked(bool notifyUnexpected);
  void scheduleReconnectLocked();

  const std::string _url;
  const std::shared_ptr<SerialQueue> _queue;
  const std::shared_ptr<const Platform> _platform = Platform::current();

  std::shared_ptr<WebSocketTask> _task;
  /// Moves on with each attempt and each end, so that nothing late is taken for the present.
  std::uint64_t _generation = 0;
  bool _intentionalClose = false;
  bool _isConnecting = false;
  bool _isOpen = false;
  int _reconnectAttempt = 0;
  /// Of the attempt that is to come; the step of any other number does nothing any more.
  std::uint64_t _reconnectStep = 0;
  bool _isReconnectPending = false;
};

}  // namespace kestrova
