#include <kestrova/platform/linux/mediasoup/ReceiveTransportImpl.h>
#include <kestrova/platform/linux/webrtc/Tracks.h>

namespace kestrova::mediasoup {

void ConsumerImpl::silence(bool withTransport) {
  if (withTransport)
    dynamic_cast<EngineTrack&>(*track()).silence();
  else
    track()->setEnabled(false);
}

std::shared_ptr<ReceiveTransportImpl> ReceiveTransportImpl::make(std::shared_ptr<Engine> engine,
                                                                 const TransportDetails& details,
                                                                 CommonCapabilities common) {
  std::shared_ptr<ReceiveTransportImpl> self(
      new ReceiveTransportImpl(std::move(engine), details.id));
  connectHandler(self, "createReceiveTransport", details, std::move(common));
  return self;
}

std::shared_ptr<RTCMediaStreamTrack> ReceiveTransportImpl::wrapped(
    MediaKind kind, const RecvHandler::Received& received) const {
  auto* track = received.track.get();
  if (kind == MediaKind::audio) {
    rtc::scoped_refptr<webrtc::AudioTrackInterface> audio(
        static_cast<webrtc::AudioTrackInterface*>(track));
    return AudioTrack::received(_core.engine, audio, track->id());
  }
  rtc::scoped_refptr<webrtc::VideoTrackInterface> video(
      static_cast<webrtc::VideoTrackInterface*>(track));
  return VideoTrack::received(_core.engine, video, track->id());
}

std::shared_ptr<Consumer> ReceiveTransportImpl::consume(
    const std::string& consumerId, const std::string& producerId, MediaKind kind,
    const std::string& rtpParameters, const std::string& appData, bool encrypted) {
  checkOpen();
  refuseEngineCallback("consume");
  if (consumerId.empty() || producerId.empty())
    throw MediasoupError("a consumer needs its own id and that of its producer");
  auto parameters = parseRtpParameters(rtpParameters, kind);
  return _core.engine->thread().run([&]() -> std::shared_ptr<Consumer> {
    checkOpen();
    const auto received = _handler->receive(consumerId, kind, std::move(parameters), encrypted);
    ConsumerImpl::Parts parts{consumerId, received.mid, kind, wrapped(kind, received), appData};
    auto consumer = std::make_shared<ConsumerImpl>(weak_from_this(), std::move(parts), producerId,
                                                   received.gate);
    raiseConnect(received.fingerprint);
    keep(consumer);
    return consumer;
  });
}

}  // namespace kestrova::mediasoup
