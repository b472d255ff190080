#include "ScriptedMediasoup.h"

#include "ScriptedTracks.h"
#include <optional>

namespace kestrova::test {
namespace {

using Answer = std::optional<std::string>;

/// The last copy of a callback that goes unanswered answers with nothing.
struct AnswerOnce {
  explicit AnswerOnce(Completion<Answer> d) : done(std::move(d)) {}
  ~AnswerOnce() { done(std::nullopt); }
  AnswerOnce(const AnswerOnce&) = delete;
  AnswerOnce& operator=(const AnswerOnce&) = delete;
  Completion<Answer> done;
};

std::shared_ptr<RTCMediaStreamTrack> remoteTrack(const std::string& id, MediaKind kind) {
  if (kind == MediaKind::video) return std::make_shared<ScriptedVideoTrack>(id);
  return std::make_shared<ScriptedAudioTrack>(id);
}

}  // namespace

void MediaScript::ask(const std::string& operation) const {
  if (refused.contains(operation)) throw MediasoupError(operation + " refused");
}

// ---- Producers and consumers -------------------------------------------------------------------

ScriptedProducer::ScriptedProducer(std::shared_ptr<MediaScript> script, std::string id,
                                   ProducerOptions options)
    : _script(std::move(script)), _id(std::move(id)), _options(std::move(options)) {}

MediaKind ScriptedProducer::kind() const {
  const bool video = dynamic_cast<RTCVideoTrack*>(_options.track.get()) != nullptr;
  return video ? MediaKind::video : MediaKind::audio;
}

void ScriptedProducer::close() {
  _script->journal.add("producer " + _id + ".close");
  _closed = true;
}

ScriptedConsumer::ScriptedConsumer(std::shared_ptr<MediaScript> script, std::string id,
                                   std::string producerId, MediaKind kind, std::string appData)
    : _script(std::move(script)),
      _id(std::move(id)),
      _producerId(std::move(producerId)),
      _kind(kind),
      _appData(std::move(appData)),
      _track(remoteTrack("track-" + _id, kind)) {}

void ScriptedConsumer::close() {
  _script->journal.add("consumer " + _id + ".close");
  _closed = true;
}

// ---- Transports --------------------------------------------------------------------------------

Task<std::shared_ptr<Producer>> ScriptedSendTransport::createProducer(ProducerOptions options) {
  const auto self = shared_from_this();
  _script->journal.add("createProducer " + options.track->id());
  _script->published.push_back(options);
  _script->ask("createProducer");
  connectOnce();
  const bool video = dynamic_cast<RTCVideoTrack*>(options.track.get()) != nullptr;
  auto produce = [this, self, video, appData = options.appData](Completion<Answer> done) {
    auto once = std::make_shared<AnswerOnce>(std::move(done));
    if (auto delegate = _delegate.lock())
      delegate->onProduce(self, video ? MediaKind::video : MediaKind::audio, R"({"codecs":[]})",
                          appData, [once](Answer id) { once->done(std::move(id)); });
  };
  const auto id = co_await awaitCallback<Answer>(std::move(produce));
  if (!id) throw MediasoupError("the service refused the producer");
  co_return std::make_shared<ScriptedProducer>(_script, *id, std::move(options));
}

std::shared_ptr<Consumer> ScriptedReceiveTransport::consume(const std::string& consumerId,
                                                            const std::string& producerId,
                                                            MediaKind kind, const std::string&,
                                                            const std::string& appData,
                                                            bool encrypted) {
  _script->journal.add("consume " + consumerId);
  if (encrypted) _script->consumedEncrypted.push_back(consumerId);
  _script->ask("consume");
  connectOnce();
  return std::make_shared<ScriptedConsumer>(_script, consumerId, producerId, kind, appData);
}

// ---- Device ------------------------------------------------------------------------------------

void ScriptedDevice::load(const std::string& routerRtpCapabilities) {
  _script->journal.add("device.load");
  _script->ask("load");
  _script->loadedWith = routerRtpCapabilities;
  _loaded = true;
}

std::string ScriptedDevice::rtpCapabilities() const {
  _script->ask("rtpCapabilities");
  return boost::json::serialize(Dictionary{{"codecs", _script->codecs}});
}

bool ScriptedDevice::canProduce(MediaKind kind) const {
  return !_script->refused.contains(kind == MediaKind::video ? "video" : "audio");
}

std::shared_ptr<SendTransport> ScriptedDevice::createSendTransport(
    const TransportDetails& details) {
  _script->journal.add("device.createSendTransport " + details.id);
  _script->ask("createSendTransport");
  _script->details.push_back(details);
  auto transport = std::make_shared<ScriptedSendTransport>(_script, details.id);
  _script->send = transport;
  return transport;
}

std::shared_ptr<ReceiveTransport> ScriptedDevice::createReceiveTransport(
    const TransportDetails& details) {
  _script->journal.add("device.createReceiveTransport " + details.id);
  _script->ask("createReceiveTransport");
  _script->details.push_back(details);
  auto transport = std::make_shared<ScriptedReceiveTransport>(_script, details.id);
  _script->receive = transport;
  return transport;
}

}  // namespace kestrova::test
