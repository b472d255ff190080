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
  request.track = std::dynamic_pointer_cast<EngineTrack>(options.track);
  if (!request.track) throw MediasoupError("there is no track, or it was made by something else");
  const bool isVideo = std::dynamic_pointer_cast<RTCVideoTrack>(options.track) != nullptr;
  request.kind = isVideo ? MediaKind::video : MediaKind::audio;
  request.encodings = options.encodings;
  if (!options.codecOptions.empty()) {
    auto wishes = parseJson(options.codecOptions);
    if (!wishes || !wishes->is_object()) throw MediasoupError("codecOptions is no JSON object");
    request.codecOptions = std::move(wishes->get_object());
  }
  request.encrypted = options.encrypted;
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

ProducerImpl::~ProducerImpl() {
  _engine->post([sender = std::move(_sender)] {});  // let go of there
}

void ProducerImpl::silence(bool withTransport) {
  if (!withTransport) _engine->post([sender = _sender] { sender->SetTrack(nullptr); });
}

void SendTransportImpl::close() {
  SendTransportBase::close();
  std::function<void()> end;
  {
    std::scoped_lock held(_lock);
    end.swap(_onClose);
  }
  if (end) end();
}

/// What `start` begins, or `otherwise` as soon as the transport closes. One at a time.
template <class T, class Start>
Task<T> SendTransportImpl::unlessClosed(Self self, T otherwise, Start start) {
  auto begin = [self, otherwise, start](Completion<T> done) {
    {
      std::scoped_lock held(self->_lock);
      self->_onClose = [done, otherwise] { done(otherwise); };
    }
    if (self->closed())
      done(otherwise);
    else
      start(done);
  };
  auto wait = awaitCallback<T>(std::move(begin));
  auto result = co_await std::move(wait);
  std::function<void()> spent;
  std::scoped_lock held(self->_lock);
  spent.swap(self->_onClose);
  co_return result;
}

Task<SendTransportImpl::Negotiated> SendTransportImpl::negotiate(Self self, SendRequest request) {
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
  Negotiated closed;
  closed.failure = kClosed;
  return unlessClosed<Negotiated>(self, std::move(closed), std::move(begin));
}

Task<SendTransportImpl::ProducerId> SendTransportImpl::askServer(Self self, MediaKind kind,
                                                                 std::string rtpParameters,
                                                                 std::string appData) {
  auto ask = [self, kind, rtpParameters, appData](Completion<ProducerId> done) {
    auto answer = std::make_shared<ProduceAnswer>(done);
    self->_core.callbacks->async([self, kind, rtpParameters, appData, answer] {
      auto delegate = self->delegate();
      if (self->closed() || !delegate) return;
      delegate->onProduce(self, kind, rtpParameters, appData,
                          [answer](std::optional<std::string> id) { answer->give(std::move(id)); });
    });
  };
  return unlessClosed<ProducerId>(self, std::nullopt, std::move(ask));
}

Task<bool> SendTransportImpl::undo(Self self, std::string mid) {
  auto begin = [self, mid](Completion<bool> done) {
    self->_core.engine->thread().post([self, mid, done] {
      if (!self->closed()) self->_handler->stop({mid});
      done(true);
    });
  };
  return unlessClosed<bool>(self, false, std::move(begin));
}

Task<std::shared_ptr<Producer>> SendTransportImpl::createProducer(ProducerOptions options) {
  return produce(shared_from_this(), std::move(options));
}

Task<std::shared_ptr<Producer>> SendTransportImpl::produce(Self self, ProducerOptions options) {
  self->checkOpen();
  auto request = requestOf(options);
  const auto kind = request.kind;
  auto enter = self->_turns.acquire();
  const auto turn = co_await std::move(enter);

  auto negotiation = negotiate(self, std::move(request));
  auto negotiated = co_await std::move(negotiation);
  if (!negotiated.failure.empty()) throw MediasoupError(negotiated.failure);
  self->raiseConnect(negotiated.sent.fingerprint);

  auto question = askServer(self, kind, toJson(negotiated.sent.rtpParameters), options.appData);
  const auto producerId = co_await std::move(question);
  const auto mid = negotiated.sent.mid;
  if (!producerId || producerId->empty()) {
    auto undoing = undo(self, mid);
    co_await std::move(undoing);
    self->checkOpen();
    throw MediasoupError("the server refuses the producer");
  }
  ProducerImpl::Parts parts{*producerId, mid, kind, options.track, options.appData};
  auto producer = std::make_shared<ProducerImpl>(
      self, std::move(parts), !options.track->isEnabled(), self->_core.engine,
      std::move(negotiated.sent.sender), std::move(negotiated.sent.gate));
  self->keep(producer);
  self->_core.engine->thread().post([handler = self->_handler, mid] { handler->start(mid); });
  if (kind == MediaKind::video) self->seekBandwidth(0);
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
