#pragma once

#include <kestrova/platform/Await.h>
#include <kestrova/platform/linux/mediasoup/RecvHandler.h>
#include <kestrova/platform/linux/mediasoup/TransportCore.h>

#include <mutex>

namespace kestrova::mediasoup {

class ConsumerImpl;

class ReceiveTransportImpl final : public ReceiveTransport,
                                   public std::enable_shared_from_this<ReceiveTransportImpl> {
public:
  /// \throws MediasoupError
  static std::shared_ptr<ReceiveTransportImpl> make(std::shared_ptr<Engine> engine,
                                                    const TransportDetails& details,
                                                    CommonCapabilities common);
  ~ReceiveTransportImpl() override;

  std::string id() const override { return _core.id; }
  TransportConnectionState connectionState() const override { return _core.state; }
  bool closed() const override { return _core.closing.closed(); }
  void close() override;
  void restartICE(const std::string& iceParameters) override;
  Task<std::string> stats() override;
  void setDelegate(std::weak_ptr<TransportDelegate> delegate) override;
  std::shared_ptr<Consumer> consume(const std::string& consumerId, const std::string& producerId,
                                    MediaKind kind, const std::string& rtpParameters,
                                    const std::string& appData) override;

  void stopConsumer(const ConsumerImpl& consumer);
  Task<std::string> consumerStats(std::string mid);

private:
  ReceiveTransportImpl(std::shared_ptr<Engine> engine, std::string id);
  void checkOpen() const;
  std::shared_ptr<RTCMediaStreamTrack> wrapped(MediaKind kind,
                                               const RecvHandler::Received& received) const;
  void onState(TransportConnectionState state);
  void raiseConnect(const DtlsFingerprint& fingerprint);
  std::shared_ptr<TransportDelegate> delegate();

  TransportCore _core;
  std::shared_ptr<RecvHandler> _handler;  // used on the engine thread
  std::mutex _lock;
  // Under _lock:
  std::weak_ptr<TransportDelegate> _delegate;
  std::vector<std::shared_ptr<ConsumerImpl>> _consumers;
};

class ConsumerImpl final : public Consumer, public std::enable_shared_from_this<ConsumerImpl> {
public:
  struct Parts {
    std::string id;
    std::string producerId;
    std::string mid;
    MediaKind kind = MediaKind::audio;
    std::shared_ptr<RTCMediaStreamTrack> track;
    std::string appData;
  };
  ConsumerImpl(std::weak_ptr<ReceiveTransportImpl> transport, Parts parts);

  std::string id() const override { return _parts.id; }
  std::string producerId() const override { return _parts.producerId; }
  MediaKind kind() const override { return _parts.kind; }
  std::shared_ptr<RTCMediaStreamTrack> track() const override { return _parts.track; }
  std::string appData() const override { return _parts.appData; }
  bool closed() const override { return _closing.closed(); }
  bool paused() const override { return _paused; }
  void pause() override;
  void resume() override;
  void close() override;
  void setDelegate(std::weak_ptr<ConsumerDelegate> delegate) override;
  Task<std::string> stats() override;

  const std::string& mid() const { return _parts.mid; }
  /// Closes it because its transport has closed; the delegate learns of it on `callbacks`.
  void transportClosed(SerialQueue& callbacks);

private:
  std::weak_ptr<ReceiveTransportImpl> _transport;
  const Parts _parts;
  Closing _closing;
  std::atomic<bool> _paused{false};
  std::mutex _lock;
  std::weak_ptr<ConsumerDelegate> _delegate;  // under _lock
};

}  // namespace kestrova::mediasoup
