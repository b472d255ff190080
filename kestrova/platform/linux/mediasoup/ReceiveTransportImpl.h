#pragma once

#include <kestrova/platform/linux/mediasoup/RecvHandler.h>
#include <kestrova/platform/linux/mediasoup/TransportBase.h>

namespace kestrova::mediasoup {

class ConsumerImpl;
class ReceiveTransportImpl;

using ReceiveTransportBase = TransportBase<ReceiveTransportImpl, ReceiveTransport, RecvHandler,
                                           ConsumerImpl, TransportDelegate>;
using ConsumerBase = StreamBase<ConsumerImpl, Consumer, ReceiveTransportImpl, ConsumerDelegate>;

class ConsumerImpl final : public ConsumerBase {
public:
  ConsumerImpl(std::weak_ptr<ReceiveTransportImpl> transport, Parts parts, std::string producerId,
               rtc::scoped_refptr<e2ee::FrameGate> gate)
      : ConsumerBase(std::move(transport), std::move(parts), false),
        _producerId(std::move(producerId)),
        _rtpReceiver(std::make_shared<e2ee::GatedReceiver>(track(), std::move(gate))) {}

  std::shared_ptr<RTCRtpReceiver> rtpReceiver() const override { return _rtpReceiver; }

  std::string producerId() const override { return _producerId; }

private:
  void silence(bool withTransport) override;
  const std::string _producerId;
  const std::shared_ptr<RTCRtpReceiver> _rtpReceiver;
};

class ReceiveTransportImpl final : public ReceiveTransportBase {
public:
  /// \throws MediasoupError
  static std::shared_ptr<ReceiveTransportImpl> make(std::shared_ptr<Engine> engine,
                                                    const TransportDetails& details,
                                                    CommonCapabilities common);

  std::shared_ptr<Consumer> consume(const std::string& consumerId, const std::string& producerId,
                                    MediaKind kind, const std::string& rtpParameters,
                                    const std::string& appData, bool encrypted) override;

private:
  friend ReceiveTransportBase;
  using ReceiveTransportBase::ReceiveTransportBase;
  std::shared_ptr<RTCMediaStreamTrack> wrapped(MediaKind kind,
                                               const RecvHandler::Received& received) const;
};

}  // namespace kestrova::mediasoup
