#include <kestrova/platform/linux/mediasoup/SendTransportImpl.h>
#include <kestrova/platform/linux/webrtc/Tracks.h>

#include <algorithm>

namespace kestrova::mediasoup {
namespace {

/// The engine probes once, with the first packets. A mediasoup server loses that: its first
/// feedback names no stream, for which the engine drops it, and from then on the estimate only
/// creeps up. So it is looked after until it moves, each time after twice as long; from the second
/// look on that feedback, which comes every 100 ms, is over.
constexpr std::chrono::milliseconds kFirstLook{150};
constexpr int kLooks = 7;

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

std::shared_ptr<SendTransportImpl> SendTransportImpl::make(std::shared_ptr<Engine> engine,
                                                           const TransportDetails& details,
                                                           CommonCapabilities common) {
  std::shared_ptr<SendTransportImpl> self(new SendTransportImpl(std::move(engine), details.id));
  connectHandler(self, "createSendTransport", details, std::move(common));
  return self;
}

void SendTransportImpl::close() {
  SendTransportBase::close();
  std::optional<Completion<ProducerId>> pending;
  {
    std::scoped_lock held(_lock);
    pending.swap(_pendingProduce);
  }
  if (pending) (*pending)(std::nullopt);
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
  auto enter = _turns.acquire();
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
  ProducerImpl::Parts parts{*producerId, mid, kind, options.track, options.appData};
  auto producer = std::make_shared<ProducerImpl>(weak_from_this(), std::move(parts),
                                                 !options.track->isEnabled());
  keep(producer);
  _core.engine->thread().post([handler = _handler, mid] { handler->start(mid); });
  if (kind == MediaKind::video) seekBandwidth(0);
  co_return producer;
}

void SendTransportImpl::seekBandwidth(int attempt) {
  if (attempt == kLooks) return;
  auto judge = [weak = weak_from_this(), attempt](const std::string& statistics) {
    auto self = weak.lock();
    if (!self) return;
    self->_core.engine->thread().post([weak, attempt, statistics] {
      auto transport = weak.lock();
      if (!transport || transport->closed()) return;
      if (transport->_handler->seekBandwidth(statistics)) transport->seekBandwidth(attempt + 1);
    });
  };
  auto look = [weak = weak_from_this(), judge] {
    auto self = weak.lock();
    if (!self || self->closed()) return;
    self->_core.engine->thread().post([weak, judge] {
      auto transport = weak.lock();
      if (transport && !transport->closed()) transport->_handler->stats({}, judge);
    });
  };
  _core.callbacks->after(kFirstLook * (1 << attempt), std::move(look));
}

}  // namespace kestrova::mediasoup
