#include <kestrova/platform/linux/mediasoup/ReceiveTransportImpl.h>
#include <kestrova/platform/linux/webrtc/Tracks.h>

#include <algorithm>

namespace kestrova::mediasoup {

ReceiveTransportImpl::ReceiveTransportImpl(std::shared_ptr<Engine> engine, std::string id)
    : _core(std::move(engine), std::move(id)) {}

std::shared_ptr<ReceiveTransportImpl> ReceiveTransportImpl::make(std::shared_ptr<Engine> engine,
                                                                 const TransportDetails& details,
                                                                 CommonCapabilities common) {
  refuseEngineCallback("createReceiveTransport");
  auto remote = parseTransport(details);
  std::shared_ptr<ReceiveTransportImpl> self(new ReceiveTransportImpl(engine, details.id));
  auto onState = [weak = std::weak_ptr(self)](TransportConnectionState state) {
    if (auto transport = weak.lock()) transport->onState(state);
  };
  self->_handler = engine->thread().run([&] {
    return std::make_shared<RecvHandler>(*engine, std::move(remote), details.iceTransportPolicy,
                                         std::move(common), std::move(onState));
  });
  return self;
}

ReceiveTransportImpl::~ReceiveTransportImpl() {
  for (const auto& consumer : _consumers) consumer->transportClosed(*_core.callbacks);
  _core.engine->thread().post([handler = std::move(_handler)] {
    if (handler) handler->close();
  });
}

void ReceiveTransportImpl::close() {
  if (!_core.closing.close()) return;
  _core.state = TransportConnectionState::closed;
  std::vector<std::shared_ptr<ConsumerImpl>> consumers;
  {
    std::scoped_lock held(_lock);
    consumers.swap(_consumers);
  }
  for (const auto& consumer : consumers) consumer->transportClosed(*_core.callbacks);
  _core.engine->thread().runOrPost([handler = _handler] { handler->close(); });
}

void ReceiveTransportImpl::checkOpen() const {
  if (closed()) throw MediasoupError("the transport is closed");
}

void ReceiveTransportImpl::restartICE(const std::string& iceParameters) {
  checkOpen();
  refuseEngineCallback("restartICE");
  auto ice = parseIceParameters(iceParameters);
  _core.engine->thread().run([&] {
    checkOpen();
    _handler->restartIce(std::move(ice));
  });
}

Task<std::string> ReceiveTransportImpl::stats() {
  return consumerStats({});
}

Task<std::string> ReceiveTransportImpl::consumerStats(std::string mid) {
  auto self = shared_from_this();
  auto ask = [self, mid = std::move(mid)](Completion<std::string> done) {
    self->_core.engine->thread().post([self, mid, done] {
      if (self->closed())
        done("[]");
      else
        self->_handler->stats(mid, done);
    });
  };
  auto answer = awaitCallback<std::string>(std::move(ask));
  co_return co_await std::move(answer);
}

void ReceiveTransportImpl::setDelegate(std::weak_ptr<TransportDelegate> delegate) {
  std::scoped_lock held(_lock);
  _delegate = std::move(delegate);
}

std::shared_ptr<TransportDelegate> ReceiveTransportImpl::delegate() {
  std::scoped_lock held(_lock);
  return _delegate.lock();
}

void ReceiveTransportImpl::onState(TransportConnectionState state) {
  if (closed()) return;
  _core.callbacks->async([weak = weak_from_this(), state] {
    auto self = weak.lock();
    if (!self || self->closed()) return;
    self->_core.state = state;
    if (auto delegate = self->delegate()) delegate->onConnectionStateChange(self, state);
  });
}

void ReceiveTransportImpl::raiseConnect(const DtlsFingerprint& fingerprint) {
  if (_core.connectRaised.exchange(true)) return;
  _core.callbacks->async([weak = weak_from_this(), json = dtlsParametersJson(fingerprint)] {
    auto self = weak.lock();
    if (!self || self->closed()) return;
    if (auto delegate = self->delegate()) delegate->onConnect(self, json);
  });
}

std::shared_ptr<RTCMediaStreamTrack> ReceiveTransportImpl::wrapped(
    MediaKind kind, const RecvHandler::Received& received) const {
  auto* track = received.track.get();
  if (kind == MediaKind::audio) {
    rtc::scoped_refptr<webrtc::AudioTrackInterface> audio(
        static_cast<webrtc::AudioTrackInterface*>(track));
    return AudioTrack::make(_core.engine, audio, track->id());
  }
  rtc::scoped_refptr<webrtc::VideoTrackInterface> video(
      static_cast<webrtc::VideoTrackInterface*>(track));
  return VideoTrack::make(_core.engine, video, track->id());
}

std::shared_ptr<Consumer> ReceiveTransportImpl::consume(const std::string& consumerId,
                                                        const std::string& producerId,
                                                        MediaKind kind,
                                                        const std::string& rtpParameters,
                                                        const std::string& appData) {
  checkOpen();
  refuseEngineCallback("consume");
  if (consumerId.empty() || producerId.empty())
    throw MediasoupError("a consumer needs its own id and that of its producer");
  auto parameters = parseRtpParameters(rtpParameters, kind);
  return _core.engine->thread().run([&]() -> std::shared_ptr<Consumer> {
    checkOpen();
    const auto received = _handler->receive(consumerId, kind, std::move(parameters));
    auto consumer = std::make_shared<ConsumerImpl>(
        weak_from_this(), ConsumerImpl::Parts{consumerId, producerId, received.mid, kind,
                                              wrapped(kind, received), appData});
    raiseConnect(received.fingerprint);
    std::scoped_lock held(_lock);
    checkOpen();
    _consumers.push_back(consumer);
    return consumer;
  });
}

void ReceiveTransportImpl::stopConsumer(const ConsumerImpl& consumer) {
  {
    std::scoped_lock held(_lock);
    std::erase_if(_consumers, [&](const auto& other) { return other.get() == &consumer; });
  }
  _core.engine->thread().runOrPost(
      [handler = _handler, mid = consumer.mid()] { handler->stop(mid); });
}

// ---- ConsumerImpl ------------------------------------------------------------------------------

ConsumerImpl::ConsumerImpl(std::weak_ptr<ReceiveTransportImpl> transport, Parts parts)
    : _transport(std::move(transport)), _parts(std::move(parts)) {}

void ConsumerImpl::pause() {
  if (closed()) return;
  _paused = true;
  _parts.track->setEnabled(false);
}

void ConsumerImpl::resume() {
  if (closed()) return;
  _paused = false;
  _parts.track->setEnabled(true);
}

void ConsumerImpl::close() {
  const auto self = shared_from_this();  // the transport may hold the last reference
  if (!_closing.close()) return;
  if (auto transport = _transport.lock()) transport->stopConsumer(*this);
}

void ConsumerImpl::setDelegate(std::weak_ptr<ConsumerDelegate> delegate) {
  std::scoped_lock held(_lock);
  _delegate = std::move(delegate);
}

Task<std::string> ConsumerImpl::stats() {
  auto transport = closed() ? nullptr : _transport.lock();
  if (!transport) co_return "[]";
  auto answer = transport->consumerStats(_parts.mid);
  co_return co_await std::move(answer);
}

void ConsumerImpl::transportClosed(SerialQueue& callbacks) {
  if (!_closing.close()) return;
  callbacks.async([self = shared_from_this()] {
    std::shared_ptr<ConsumerDelegate> delegate;
    {
      std::scoped_lock held(self->_lock);
      delegate = self->_delegate.lock();
    }
    if (delegate) delegate->onTransportClose(self);
  });
}

}  // namespace kestrova::mediasoup
