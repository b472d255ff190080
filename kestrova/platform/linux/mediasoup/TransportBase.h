#pragma once

#include <kestrova/platform/Await.h>
#include <kestrova/platform/linux/mediasoup/TransportCore.h>
#include <kestrova/platform/linux/mediasoup/TransportParameters.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kestrova::mediasoup {

/// Why an operation fails whose transport closed before it or under it.
constexpr const char* kClosed = "the transport is closed";

/// One published or received track on a transport: what producer and consumer do alike.
/// Thread-safe.
///
/// `Self` is the class made of it, `Interface` what it is to the rest of the library.
template <class Self, class Interface, class Transport, class Delegate>
class StreamBase : public Interface, public std::enable_shared_from_this<Self> {
public:
  struct Parts {
    std::string id;
    std::string mid;
    MediaKind kind = MediaKind::audio;
    std::shared_ptr<RTCMediaStreamTrack> track;
    std::string appData;
  };

  std::string id() const override { return _parts.id; }
  MediaKind kind() const override { return _parts.kind; }
  std::shared_ptr<RTCMediaStreamTrack> track() const override { return _parts.track; }
  std::string appData() const override { return _parts.appData; }
  bool closed() const override { return _closing.closed(); }
  bool paused() const override { return _paused; }
  void pause() override { setPaused(true); }
  void resume() override { setPaused(false); }

  void close() override {
    const auto self = this->shared_from_this();  // the transport may hold the last reference
    if (!_closing.close()) return;
    silence(false);
    if (auto transport = _transport.lock()) transport->stopStream(*self);
  }

  void setDelegate(std::weak_ptr<Delegate> delegate) override {
    std::scoped_lock held(_lock);
    _delegate = std::move(delegate);
  }

  Task<std::string> stats() override { return statsOf(this->shared_from_this()); }

  const std::string& mid() const { return _parts.mid; }

  /// Closes it because its transport has closed; the delegate learns of it on `callbacks`.
  void transportClosed(SerialQueue& callbacks) {
    if (!_closing.close()) return;
    silence(true);
    callbacks.async([self = this->shared_from_this()] {
      if (auto delegate = self->delegate()) delegate->onTransportClose(self);
    });
  }

protected:
  StreamBase(std::weak_ptr<Transport> transport, Parts parts, bool paused)
      : _transport(std::move(transport)), _parts(std::move(parts)), _paused(paused) {}
  /// Ends what is heard and seen of it, without waiting. \param withTransport whether the engine
  /// is about to end it with the whole transport
  virtual void silence(bool withTransport) = 0;

private:
  /// A task may be awaited long after the call that made it: it holds its stream.
  static Task<std::string> statsOf(std::shared_ptr<Self> self) {
    auto transport = self->closed() ? nullptr : self->_transport.lock();
    if (!transport) co_return "[]";
    auto answer = transport->streamStats(self->_parts.mid);
    co_return co_await std::move(answer);
  }
  void setPaused(bool paused) {
    if (closed()) return;
    _paused = paused;
    _parts.track->setEnabled(!paused);
  }
  std::shared_ptr<Delegate> delegate() {
    std::scoped_lock held(_lock);
    return _delegate.lock();
  }

  const std::weak_ptr<Transport> _transport;
  const Parts _parts;
  Closing _closing;
  std::atomic<bool> _paused;
  std::mutex _lock;
  std::weak_ptr<Delegate> _delegate;  // under _lock
};

/// What the send and the receive transport do alike. Thread-safe.
///
/// `Handler` does the negotiating and is used on the engine's thread only.
template <class Self, class Interface, class Handler, class Stream, class Delegate>
class TransportBase : public Interface, public std::enable_shared_from_this<Self> {
public:
  std::string id() const override { return _core.id; }
  TransportConnectionState connectionState() const override {
    return closed() ? TransportConnectionState::closed : _core.state.load();
  }
  bool closed() const override { return _core.closing.closed(); }

  void close() override {
    if (!_core.closing.close()) return;
    std::vector<std::shared_ptr<Stream>> streams;
    {
      std::scoped_lock held(_lock);
      streams.swap(_streams);
    }
    _handler->close();
    for (const auto& stream : streams) stream->transportClosed(*_core.callbacks);
  }

  void restartICE(const std::string& iceParameters) override {
    checkOpen();
    refuseEngineCallback("restartICE");
    auto ice = parseIceParameters(iceParameters);
    _core.engine->thread().run([&] {
      checkOpen();
      _handler->restartIce(std::move(ice));
    });
  }

  Task<std::string> stats() override { return streamStats({}); }
  Task<List> statsList() override { return statsListOf(this->shared_from_this()); }

  void setDelegate(std::weak_ptr<Delegate> delegate) override {
    std::scoped_lock held(_lock);
    _delegate = std::move(delegate);
  }

  /// For its streams: the statistics of the one of that mid; an empty mid means all.
  Task<std::string> streamStats(std::string mid) {
    return statsOf(this->shared_from_this(), std::move(mid));
  }

  /// For a stream that closes. Those that close while a negotiation is awaited share the next one.
  void stopStream(const Stream& stream) {
    {
      std::scoped_lock held(_lock);
      std::erase_if(_streams, [&](const auto& other) { return other.get() == &stream; });
      _stopped.push_back(stream.mid());
      if (_stopped.size() > 1) return;
    }
    _core.engine->thread().post([weak = this->weak_from_this()] {
      if (const auto self = weak.lock()) self->negotiateStops();
    });
  }

protected:
  TransportBase(std::shared_ptr<Engine> engine, std::string id)
      : _core(std::move(engine), std::move(id)) {}

  ~TransportBase() override {
    for (const auto& stream : _streams) stream->transportClosed(*_core.callbacks);
    if (!_handler) return;
    _handler->close();
    _core.engine->thread().post([handler = std::move(_handler)]() mutable { handler.reset(); });
  }

  /// The second half of making one: `self` must be shared already.
  /// \throws MediasoupError
  static void connectHandler(const std::shared_ptr<Self>& self, const char* operation,
                             const TransportDetails& details, CommonCapabilities common) {
    refuseEngineCallback(operation);
    auto remote = parseTransport(details);
    auto onState = [weak = std::weak_ptr(self)](TransportConnectionState state) {
      if (auto transport = weak.lock()) transport->onState(state);
    };
    auto& engine = *self->_core.engine;
    self->_handler = engine.thread().run([&] {
      return std::make_shared<Handler>(engine, std::move(remote), details.iceTransportPolicy,
                                       std::move(common), std::move(onState));
    });
  }

  void checkOpen() const {
    if (closed()) throw MediasoupError(kClosed);
  }

  void keep(const std::shared_ptr<Stream>& stream) {
    std::scoped_lock held(_lock);
    checkOpen();
    _streams.push_back(stream);
  }

  std::shared_ptr<Delegate> delegate() {
    std::scoped_lock held(_lock);
    return _delegate.lock();
  }

  void raiseConnect(const DtlsFingerprint& fingerprint) {
    if (_core.connectRaised.exchange(true)) return;
    auto tell = [weak = this->weak_from_this(), json = dtlsParametersJson(fingerprint)] {
      auto self = weak.lock();
      if (!self || self->closed()) return;
      if (auto delegate = self->delegate()) delegate->onConnect(self, json);
    };
    _core.callbacks->async(std::move(tell));
  }

  TransportCore _core;
  std::shared_ptr<Handler> _handler;  // used on the engine thread, but for its `close`
  std::mutex _lock;

private:
  static Task<std::string> statsOf(std::shared_ptr<Self> self, std::string mid) {
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

  static Task<List> statsListOf(std::shared_ptr<Self> self) {
    auto ask = [self](Completion<List> done) {
      self->_core.engine->thread().post([self, done] {
        if (self->closed())
          done({});
        else
          self->_handler->statsList(done);
      });
    };
    auto answer = awaitCallback<List>(std::move(ask));
    co_return co_await std::move(answer);
  }

  /// Engine thread.
  void negotiateStops() {
    std::vector<std::string> mids;
    {
      std::scoped_lock held(_lock);
      mids.swap(_stopped);
    }
    if (!closed()) _handler->stop(mids);
  }

  void onState(TransportConnectionState state) {
    if (closed()) return;
    _core.callbacks->async([weak = this->weak_from_this(), state] {
      auto self = weak.lock();
      if (!self || self->closed()) return;
      self->_core.state = state;
      if (auto delegate = self->delegate()) delegate->onConnectionStateChange(self, state);
    });
  }

  // Under _lock:
  std::weak_ptr<Delegate> _delegate;
  std::vector<std::shared_ptr<Stream>> _streams;
  std::vector<std::string> _stopped;  // mids whose end is to be negotiated
};

}  // namespace kestrova::mediasoup
