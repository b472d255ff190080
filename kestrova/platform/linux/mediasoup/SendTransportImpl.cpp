#include <kestrova/platform/linux/mediasoup/SendTransportImpl.h>
#include <kestrova/platform/linux/webrtc/Tracks.h>

#include <algorithm>

namespace kestrova::mediasoup {
namespace {

SendRequest requestOf(const ProducerOptions& options) {
  SendRequest request;
  const auto* own = dynamic_cast<const EngineTrack*>(options.track.get());
  if (!own) throw MediasoupError("there is no track, or it was made by something else");
  request.track = own->engineTrack();
  const bool isVideo = std::dynamic_pointer_cast<RTCVideoTrack>(options.track) != nullptr;
  request.kind = isVideo ? MediaKind::video : MediaKind::audio;
  request.encodings = options.encodings;
  if (!options.codecOptions.empty()) {
    auto wishes = parseJson(options.codecOptions);
    if (!wishes || !wishes->is_object()) throw MediasoupError("codecOptions is no JSON object");
    request.codecOptions = std::move(wishes->get_object());
  }
  if (!options.codec.empty()) request.codec = parseCodecCapability(options.codec);
  return request;
}

/// The server's one answer; being dropped without a word counts as one.
class ProduceAnswer {
public:
  explicit ProduceAnswer(Completion<std::optional<std::string>> done) : _done(std::move(done)) {}
  ~ProduceAnswer() { _done(std::nullopt); }
  ProduceAnswer(const ProduceAnswer&) = delete;
  ProduceAnswer& operator=(const ProduceAnswer&) = delete;
  void give(std::optional<std::string> producerId) const { _done(std::move(producerId)); }

private:
  Completion<std::optional<std::string>> _done;
};

}  // namespace

SendTransportImpl::SendTransportImpl(std::shared_ptr<Engine> engine, std::string id)
    : _core(std::move(engine), std::move(id)) {}

std::shared_ptr<SendTransportImpl> SendTransportImpl::make(std::shared_ptr<Engine> engine,
                                                           const TransportDetails& details,
                                                           CommonCapabilities common) {
  refuseEngineCallback("createSendTransport");
  auto remote = parseTransport(details);
  std::shared_ptr<SendTransportImpl> self(new SendTransportImpl(engine, details.id));
  auto onState = [weak = std::weak_ptr(self)](TransportConnectionState state) {
    if (auto transport = weak.lock()) transport->onState(state);
  };
  self->_handler = engine->thread().run([&] {
    return std::make_shared<SendHandler>(*engine, std::move(remote), details.iceTransportPolicy,
                                         std::move(common), std::move(onState));
  });
  return self;
}

SendTransportImpl::~SendTransportImpl() {
  for (const auto& producer : _producers) producer->transportClosed(*_core.callbacks);
  _core.engine->thread().post([handler = std::move(_handler)] {
    if (handler) handler->close();
  });
}

void SendTransportImpl::close() {
  if (!_core.closing.close()) return;
  _core.state = TransportConnectionState::closed;
  std::vector<std::shared_ptr<ProducerImpl>> producers;
  std::optional<Completion<ProducerId>> pending;
  {
    std::scoped_lock held(_lock);
    producers.swap(_producers);
    pending.swap(_pendingProduce);
  }
  if (pending) (*pending)(std::nullopt);
  for (const auto& producer : producers) producer->transportClosed(*_core.callbacks);
  _core.engine->thread().runOrPost([handler = _handler] { handler->close(); });
}

void SendTransportImpl::checkOpen() const {
  if (closed()) throw MediasoupError("the transport is closed");
}

void SendTransportImpl::restartICE(const std::string& iceParameters) {
  checkOpen();
  refuseEngineCallback("restartICE");
  auto ice = parseIceParameters(iceParameters);
  _core.engine->thread().run([&] {
    checkOpen();
    _handler->restartIce(std::move(ice));
  });
}

Task<std::string> SendTransportImpl::stats() {
  return producerStats({});
}

Task<std::string> SendTransportImpl::producerStats(std::string mid) {
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

void SendTransportImpl::setDelegate(std::weak_ptr<SendTransportDelegate> delegate) {
  std::scoped_lock held(_lock);
  _delegate = std::move(delegate);
}

std::shared_ptr<SendTransportDelegate> SendTransportImpl::delegate() {
  std::scoped_lock held(_lock);
  return _delegate.lock();
}

void SendTransportImpl::onState(TransportConnectionState state) {
  if (closed()) return;
  _core.callbacks->async([weak = weak_from_this(), state] {
    auto self = weak.lock();
    if (!self || self->closed()) return;
    self->_core.state = state;
    if (auto delegate = self->delegate()) delegate->onConnectionStateChange(self, state);
  });
}

void SendTransportImpl::raiseConnect(const DtlsFingerprint& fingerprint) {
  if (_core.connectRaised.exchange(true)) return;
  _core.callbacks->async([weak = weak_from_this(), json = dtlsParametersJson(fingerprint)] {
    auto self = weak.lock();
    if (!self || self->closed()) return;
    if (auto delegate = self->delegate()) delegate->onConnect(self, json);
  });
}

Task<SendTransportImpl::Negotiated> SendTransportImpl::negotiate(SendRequest request) {
  auto self = shared_from_this();
  auto shared = std::make_shared<SendRequest>(std::move(request));
  auto begin = [self, shared](Completion<Negotiated> done) {
    self->_core.engine->thread().post([self, shared, done] {
      Negotiated result;
      try {
        self->checkOpen();
        result.sent = self->_handler->send(*shared);
      } catch (const std::exception& error) {
        result.failure = error.what();
      }
      done(std::move(result));
    });
  };
  auto answer = awaitCallback<Negotiated>(std::move(begin));
  co_return co_await std::move(answer);
}

Task<SendTransportImpl::ProducerId> SendTransportImpl::askServer(MediaKind kind,
                                                                 std::string rtpParameters,
                                                                 std::string appData) {
  auto self = shared_from_this();
  auto ask = [self, kind, rtpParameters, appData](Completion<ProducerId> done) {
    {
      std::scoped_lock held(self->_lock);
      if (!self->closed()) self->_pendingProduce = done;
    }
    auto answer = std::make_shared<ProduceAnswer>(done);
    self->_core.callbacks->async([self, kind, rtpParameters, appData, answer] {
      auto delegate = self->delegate();
      if (self->closed() || !delegate) return;
      delegate->onProduce(self, kind, rtpParameters, appData,
                          [answer](std::optional<std::string> id) { answer->give(std::move(id)); });
    });
  };
  auto wait = awaitCallback<ProducerId>(std::move(ask));
  auto id = co_await std::move(wait);
  {
    std::scoped_lock held(_lock);
    _pendingProduce.reset();
  }
  co_return id;
}

Task<bool> SendTransportImpl::undo(std::string mid) {
  auto self = shared_from_this();
  auto begin = [self, mid](Completion<bool> done) {
    self->_core.engine->thread().post([self, mid, done] {
      if (!self->closed()) self->_handler->stop(mid);
      done(true);
    });
  };
  auto answer = awaitCallback<bool>(std::move(begin));
  co_return co_await std::move(answer);
}

Task<std::shared_ptr<Producer>> SendTransportImpl::createProducer(ProducerOptions options) {
  auto self = shared_from_this();
  checkOpen();
  auto request = requestOf(options);
  const auto kind = request.kind;
  auto enter = _turns->take();
  const auto turn = co_await std::move(enter);

  auto negotiation = negotiate(std::move(request));
  auto negotiated = co_await std::move(negotiation);
  if (!negotiated.failure.empty()) throw MediasoupError(negotiated.failure);
  raiseConnect(negotiated.sent.fingerprint);

  auto question = askServer(kind, toJson(negotiated.sent.rtpParameters), options.appData);
  const auto producerId = co_await std::move(question);
  const auto mid = negotiated.sent.mid;
  if (!producerId || producerId->empty()) {
    auto undoing = undo(mid);
    co_await std::move(undoing);
    checkOpen();
    throw MediasoupError("the server refuses the producer");
  }
  auto producer = std::make_shared<ProducerImpl>(
      weak_from_this(),
      ProducerImpl::Parts{*producerId, mid, kind, options.track, options.appData});
  {
    std::scoped_lock held(_lock);
    checkOpen();
    _producers.push_back(producer);
  }
  _core.engine->thread().post([handler = _handler, mid] { handler->start(mid); });
  co_return producer;
}

void SendTransportImpl::stopProducer(const ProducerImpl& producer) {
  {
    std::scoped_lock held(_lock);
    std::erase_if(_producers, [&](const auto& other) { return other.get() == &producer; });
  }
  _core.engine->thread().runOrPost(
      [handler = _handler, mid = producer.mid()] { handler->stop(mid); });
}

// ---- ProducerImpl ------------------------------------------------------------------------------

ProducerImpl::ProducerImpl(std::weak_ptr<SendTransportImpl> transport, Parts parts)
    : _transport(std::move(transport)),
      _parts(std::move(parts)),
      _paused(!_parts.track->isEnabled()) {}

void ProducerImpl::pause() {
  if (closed()) return;
  _paused = true;
  _parts.track->setEnabled(false);
}

void ProducerImpl::resume() {
  if (closed()) return;
  _paused = false;
  _parts.track->setEnabled(true);
}

void ProducerImpl::close() {
  const auto self = shared_from_this();  // the transport may hold the last reference
  if (!_closing.close()) return;
  if (auto transport = _transport.lock()) transport->stopProducer(*this);
}

void ProducerImpl::setDelegate(std::weak_ptr<ProducerDelegate> delegate) {
  std::scoped_lock held(_lock);
  _delegate = std::move(delegate);
}

Task<std::string> ProducerImpl::stats() {
  auto transport = closed() ? nullptr : _transport.lock();
  if (!transport) co_return "[]";
  auto answer = transport->producerStats(_parts.mid);
  co_return co_await std::move(answer);
}

void ProducerImpl::transportClosed(SerialQueue& callbacks) {
  if (!_closing.close()) return;
  callbacks.async([self = shared_from_this()] {
    std::shared_ptr<ProducerDelegate> delegate;
    {
      std::scoped_lock held(self->_lock);
      delegate = self->_delegate.lock();
    }
    if (delegate) delegate->onTransportClose(self);
  });
}

}  // namespace kestrova::mediasoup
