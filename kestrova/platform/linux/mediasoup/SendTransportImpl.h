#pragma once

#include <kestrova/platform/AsyncLock.h>
#include <kestrova/platform/linux/mediasoup/SendHandler.h>
#include <kestrova/platform/linux/mediasoup/TransportBase.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace kestrova::mediasoup {

class ProducerImpl;
class SendTransportImpl;

using SendTransportBase = TransportBase<SendTransportImpl, SendTransport, SendHandler, ProducerImpl,
                                        SendTransportDelegate>;
using ProducerBase = StreamBase<ProducerImpl, Producer, SendTransportImpl, ProducerDelegate>;

class ProducerImpl final : public ProducerBase {
public:
  using Sender = rtc::scoped_refptr<webrtc::RtpSenderInterface>;
  ProducerImpl(std::weak_ptr<SendTransportImpl> transport, Parts parts, bool paused,
               std::shared_ptr<Engine> engine, Sender sender,
               rtc::scoped_refptr<e2ee::FrameGate> gate)
      : ProducerBase(std::move(transport), std::move(parts), paused),
        _engine(std::move(engine)),
        _sender(std::move(sender)),
        _rtpSender(std::make_shared<e2ee::GatedSender>(track(), std::move(gate))) {}
  ~ProducerImpl() override;

  std::shared_ptr<RTCRtpSender> rtpSender() const override { return _rtpSender; }

private:
  void silence(bool withTransport) override;

  const std::shared_ptr<Engine> _engine;
  Sender _sender;  // used on the engine's own thread
  const std::shared_ptr<RTCRtpSender> _rtpSender;
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
  using Self = std::shared_ptr<SendTransportImpl>;

  friend SendTransportBase;
  using SendTransportBase::SendTransportBase;
  // They hold the transport from the call on, however late they are awaited.
  static Task<std::shared_ptr<Producer>> produce(Self self, ProducerOptions options);
  static Task<Negotiated> negotiate(Self self, SendRequest request);
  static Task<ProducerId> askServer(Self self, MediaKind kind, std::string rtpParameters,
                                    std::string appData);
  static Task<bool> undo(Self self, std::string mid);
  template <class T, class Start>
  static Task<T> unlessClosed(Self self, T otherwise, Start start);
  void seekBandwidth(int attempt);

  AsyncLock _turns;                // one producer is negotiated at a time
  std::function<void()> _onClose;  // ends what that one waits for; under _lock
};

}  // namespace kestrova::mediasoup
