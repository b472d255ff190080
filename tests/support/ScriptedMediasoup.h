#pragma once

#include <kestrova/platform/Await.h>
#include <kestrova/platform/Mediasoup.h>
#include <kestrova/platform/Values.h>

#include "Journal.h"
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace kestrova::test {

class ScriptedSendTransport;
class ScriptedReceiveTransport;

/// What the scripted media layer does and did.
struct MediaScript {
  explicit MediaScript(Journal& j) : journal(j) {}

  Journal& journal;
  /// Operations that throw: "load", "rtpCapabilities", "createSendTransport",
  /// "createReceiveTransport", "createProducer", "consume"; and "audio" or "video" for what the
  /// device can't produce.
  std::set<std::string> refused;
  /// The device's own codecs.
  List codecs{
      Dictionary{{"mimeType", "audio/opus"}}, Dictionary{{"mimeType", "video/VP8"}},
      Dictionary{{"mimeType", "video/H264"}, {"parameters", {{"profile-level-id", "42e01f"}}}}};
  std::string loadedWith;
  std::vector<TransportDetails> details;
  std::vector<ProducerOptions> published;
  std::vector<std::string> consumedEncrypted;  ///< ids
  std::weak_ptr<ScriptedSendTransport> send;
  std::weak_ptr<ScriptedReceiveTransport> receive;
  /// What the engine's statistics of a transport are, by its id; none by default.
  std::function<Task<std::string>(const std::string& transportId)> stats;

  /// \throws MediasoupError when `operation` is refused
  void ask(const std::string& operation) const;
};

/// One that has no track where the script refuses "track".
template <class Interface>
class ScriptedEnd final : public Interface {
public:
  ScriptedEnd(std::shared_ptr<MediaScript> script, std::shared_ptr<RTCMediaStreamTrack> track)
      : _script(std::move(script)), _track(std::move(track)) {}
  std::shared_ptr<RTCMediaStreamTrack> track() const override {
    return _script->refused.contains("track") ? nullptr : _track;
  }

private:
  const std::shared_ptr<MediaScript> _script;
  const std::shared_ptr<RTCMediaStreamTrack> _track;
};

class ScriptedProducer final : public Producer {
public:
  ScriptedProducer(std::shared_ptr<MediaScript> script, std::string id, ProducerOptions options);
  std::string id() const override { return _id; }
  MediaKind kind() const override;
  std::shared_ptr<RTCMediaStreamTrack> track() const override { return _options.track; }
  std::string appData() const override { return _options.appData; }
  bool closed() const override { return _closed; }
  bool paused() const override { return _paused; }
  void pause() override { setPaused(true); }
  void resume() override { setPaused(false); }
  void close() override;
  void setDelegate(std::weak_ptr<ProducerDelegate> delegate) override { _delegate = delegate; }
  Task<std::string> stats() override { co_return "[]"; }
  std::shared_ptr<RTCRtpSender> rtpSender() const override {
    return std::make_shared<ScriptedEnd<RTCRtpSender>>(_script, track());
  }

private:
  /// As the real one does.
  void setPaused(bool paused) {
    _paused = paused;
    _options.track->setEnabled(!paused);
  }

  const std::shared_ptr<MediaScript> _script;
  const std::string _id;
  const ProducerOptions _options;
  std::weak_ptr<ProducerDelegate> _delegate;
  bool _closed = false;
  bool _paused = false;
};

class ScriptedConsumer final : public Consumer {
public:
  ScriptedConsumer(std::shared_ptr<MediaScript> script, std::string id, std::string producerId,
                   MediaKind kind, std::string appData);
  std::string id() const override { return _id; }
  std::string producerId() const override { return _producerId; }
  MediaKind kind() const override { return _kind; }
  std::shared_ptr<RTCMediaStreamTrack> track() const override { return _track; }
  std::string appData() const override { return _appData; }
  bool closed() const override { return _closed; }
  bool paused() const override { return _paused; }
  void pause() override { _paused = true; }
  void resume() override { _paused = false; }
  void close() override;
  std::shared_ptr<RTCRtpReceiver> rtpReceiver() const override {
    return std::make_shared<ScriptedEnd<RTCRtpReceiver>>(_script, _track);
  }
  void setDelegate(std::weak_ptr<ConsumerDelegate>) override {}
  Task<std::string> stats() override { co_return "[]"; }

private:
  const std::shared_ptr<MediaScript> _script;
  const std::string _id;
  const std::string _producerId;
  const MediaKind _kind;
  const std::string _appData;
  const std::shared_ptr<RTCMediaStreamTrack> _track;
  bool _closed = false;
  bool _paused = false;
};

/// What both transports share.
template <class Base, class Delegate>
class ScriptedTransport : public Base, public std::enable_shared_from_this<Base> {
public:
  ScriptedTransport(std::shared_ptr<MediaScript> script, std::string id)
      : _script(std::move(script)), _id(std::move(id)) {}
  std::string id() const override { return _id; }
  TransportConnectionState connectionState() const override { return _state; }
  bool closed() const override { return _closed; }
  void close() override {
    _script->journal.add(_id + ".close");
    _closed = true;
  }
  void restartICE(const std::string& iceParameters) override {
    _script->journal.add(_id + ".restartICE " + iceParameters);
    _script->ask("restartICE");
  }
  Task<std::string> stats() override {
    const auto script = _script;
    if (!script->stats) co_return "[]";
    auto answer = script->stats(_id);
    co_return co_await std::move(answer);
  }
  void setDelegate(std::weak_ptr<Delegate> delegate) override { _delegate = std::move(delegate); }

  void reach(TransportConnectionState state) {
    _state = state;
    if (auto delegate = _delegate.lock())
      delegate->onConnectionStateChange(this->shared_from_this(), state);
  }

protected:
  /// As the real one: asks once to be connected, when it is first used.
  void connectOnce() {
    if (std::exchange(_connecting, true)) return;
    if (auto delegate = _delegate.lock())
      delegate->onConnect(this->shared_from_this(), R"({"role":"client"})");
  }

  const std::shared_ptr<MediaScript> _script;
  const std::string _id;
  std::weak_ptr<Delegate> _delegate;
  TransportConnectionState _state = TransportConnectionState::new_;
  bool _closed = false;
  bool _connecting = false;
};

class ScriptedSendTransport final : public ScriptedTransport<SendTransport, SendTransportDelegate> {
public:
  using ScriptedTransport::ScriptedTransport;
  Task<std::shared_ptr<Producer>> createProducer(ProducerOptions options) override;
};

class ScriptedReceiveTransport final
    : public ScriptedTransport<ReceiveTransport, TransportDelegate> {
public:
  using ScriptedTransport::ScriptedTransport;
  std::shared_ptr<Consumer> consume(const std::string& consumerId, const std::string& producerId,
                                    MediaKind kind, const std::string& rtpParameters,
                                    const std::string& appData, bool encrypted) override;
};

class ScriptedDevice final : public Device {
public:
  explicit ScriptedDevice(std::shared_ptr<MediaScript> script) : _script(std::move(script)) {}
  bool isLoaded() const override { return _loaded; }
  void load(const std::string& routerRtpCapabilities) override;
  std::string rtpCapabilities() const override;
  bool canProduce(MediaKind kind) const override;
  std::shared_ptr<SendTransport> createSendTransport(const TransportDetails& details) override;
  std::shared_ptr<ReceiveTransport> createReceiveTransport(
      const TransportDetails& details) override;

private:
  const std::shared_ptr<MediaScript> _script;
  bool _loaded = false;
};

}  // namespace kestrova::test
