#pragma once

#include <kestrova/platform/Await.h>
#include <kestrova/platform/linux/mediasoup/SendHandler.h>
#include <kestrova/platform/linux/mediasoup/TransportCore.h>
#include <kestrova/platform/linux/mediasoup/Turns.h>

#include <mutex>

namespace kestrova::mediasoup {

class ProducerImpl;

class SendTransportImpl final : public SendTransport,
                                public std::enable_shared_from_this<SendTransportImpl> {
public:
  /// \throws MediasoupError
  static std::shared_ptr<SendTransportImpl> make(std::shared_ptr<Engine> engine,
                                                 const TransportDetails& details,
                                                 CommonCapabilities common);
  ~SendTransportImpl() override;

  std::string id() const override { return _core.id; }
  TransportConnectionState connectionState() const override { return _core.state; }
  bool closed() const override { return _core.closing.closed(); }
  void close() override;
  void restartICE(const std::string& iceParameters) override;
  Task<std::string> stats() override;
  void setDelegate(std::weak_ptr<SendTransportDelegate> delegate) override;
  Task<std::shared_ptr<Producer>> createProducer(ProducerOptions options) override;

  void stopProducer(const ProducerImpl& producer);
  Task<std::string> producerStats(std::string mid);

private:
  struct Negotiated {
    SendHandler::Sent sent;
    std::string failure;
  };
  using ProducerId = std::optional<std::string>;

  SendTransportImpl(std::shared_ptr<Engine> engine, std::string id);
  void checkOpen() const;
  Task<Negotiated> negotiate(SendRequest request);
  Task<ProducerId> askServer(MediaKind kind, std::string rtpParameters, std::string appData);
  Task<bool> undo(std::string mid);
  void onState(TransportConnectionState state);
  void raiseConnect(const DtlsFingerprint& fingerprint);
  std::shared_ptr<SendTransportDelegate> delegate();

  TransportCore _core;
  std::shared_ptr<SendHandler> _handler;  // used on the engine thread
  std::shared_ptr<Turns> _turns = std::make_shared<Turns>();
  std::mutex _lock;
  // Under _lock:
  std::weak_ptr<SendTransportDelegate> _delegate;
  std::vector<std::shared_ptr<ProducerImpl>> _producers;
  std::optional<Completion<ProducerId>> _pendingProduce;
};

class ProducerImpl final : public Producer, public std::enable_shared_from_this<ProducerImpl> {
public:
  struct Parts {
    std::string id;
    std::string mid;
    MediaKind kind = MediaKind::audio;
    std::shared_ptr<RTCMediaStreamTrack> track;
    std::string appData;
  };
  ProducerImpl(std::weak_ptr<SendTransportImpl> transport, Parts parts);

  std::string id() const override { return _parts.id; }
  MediaKind kind() const override { return _parts.kind; }
  std::shared_ptr<RTCMediaStreamTrack> track() const override { return _parts.track; }
  std::string appData() const override { return _parts.appData; }
  bool closed() const override { return _closing.closed(); }
  bool paused() const override { return _paused; }
  void pause() override;
  void resume() override;
  void close() override;
  void setDelegate(std::weak_ptr<ProducerDelegate> delegate) override;
  Task<std::string> stats() override;

  const std::string& mid() const { return _parts.mid; }
  /// Closes it because its transport has closed; the delegate learns of it on `callbacks`.
  void transportClosed(SerialQueue& callbacks);

private:
  std::weak_ptr<SendTransportImpl> _transport;
  const Parts _parts;
  Closing _closing;
  std::atomic<bool> _paused;
  std::mutex _lock;
  std::weak_ptr<ProducerDelegate> _delegate;  // under _lock
};

}  // namespace kestrova::mediasoup
