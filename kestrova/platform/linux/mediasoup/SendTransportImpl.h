#pragma once

#include <kestrova/platform/AsyncLock.h>
#include <kestrova/platform/linux/mediasoup/SendHandler.h>
#include <kestrova/platform/linux/mediasoup/TransportBase.h>

namespace kestrova::mediasoup {

class ProducerImpl;
class SendTransportImpl;

using SendTransportBase = TransportBase<SendTransportImpl, SendTransport, SendHandler, ProducerImpl,
                                        SendTransportDelegate>;
using ProducerBase = StreamBase<ProducerImpl, Producer, SendTransportImpl, ProducerDelegate>;

class ProducerImpl final : public ProducerBase {
public:
  ProducerImpl(std::weak_ptr<SendTransportImpl> transport, Parts parts, bool paused)
      : ProducerBase(std::move(transport), std::move(parts), paused) {}
};

class SendTransportImpl final : public SendTransportBase {
public:
  /// \throws MediasoupError
  static std::shared_ptr<SendTransportImpl> make(std::shared_ptr<Engine> engine,
                                                 const TransportDetails& details,
                                                 CommonCapabilities common);

  void close() override;
  Task<std::shared_ptr<Producer>> createProducer(ProducerOptions options) override;

private:
  struct Negotiated {
    SendHandler::Sent sent;
    std::string failure;
  };
  using ProducerId = std::optional<std::string>;

  friend SendTransportBase;
  using SendTransportBase::SendTransportBase;
  Task<Negotiated> negotiate(SendRequest request);
  Task<ProducerId> askServer(MediaKind kind, std::string rtpParameters, std::string appData);
  Task<bool> undo(std::string mid);
  void seekBandwidth(int attempt);

  AsyncLock _turns;                                       // one producer is negotiated at a time
  std::optional<Completion<ProducerId>> _pendingProduce;  // under _lock
};

}  // namespace kestrova::mediasoup
