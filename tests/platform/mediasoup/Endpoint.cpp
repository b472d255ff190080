#include "Endpoint.h"

#include <kestrova/platform/Platform.h>
#include <kestrova/platform/linux/capture/CaptureDevices.h>
#include <kestrova/platform/linux/capture/TestPicture.h>
#include <kestrova/platform/linux/mediasoup/MediasoupDevice.h>
#include <kestrova/platform/linux/webrtc/PeerConnectionFactory.h>

#include <cmath>
#include <fstream>
#include <numbers>
#include <sstream>

namespace kestrova::test {
namespace {

std::int64_t wallClockMs() {
  return std::chrono::duration_cast<milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace

void installPlatform() {
  static std::once_flag once;
  std::call_once(once, [] {
    Platform platform;
    platform.background = Runtime::background();
    platform.scheduler = Runtime::scheduler();
    Platform::install(std::move(platform));
  });
}

// ---- watching ----------------------------------------------------------------------------------

void ClockWatch::onFrame(const VideoFrame& frame) {
  const auto clock = readTestPictureClock(frame.buffer->i420());
  {
    std::scoped_lock held(_lock);
    ++_seen.pictures;
    _seen.width = frame.buffer->i420().width;
    if (clock) {
      ++_seen.readings;
      if (*clock < _last) ++_seen.backwards;
      _last = *clock;
      _seen.latencyMs = wallClockMs() - *clock;
    }
  }
  _wake.notify_all();
  if (onPicture) onPicture();
}

bool ClockWatch::waitForReadings(int count, milliseconds patience) {
  std::unique_lock held(_lock);
  const int wanted = _seen.readings + count;
  return _wake.wait_for(held, patience, [&] { return _seen.readings >= wanted; });
}

bool ClockWatch::waitForWidth(int width, milliseconds patience) {
  std::unique_lock held(_lock);
  return _wake.wait_for(held, patience, [&] { return _seen.width >= width; });
}

ClockWatch::Seen ClockWatch::seen() {
  std::scoped_lock held(_lock);
  return _seen;
}

void ToneWatch::onData(const AudioData& data) {
  {
    std::scoped_lock held(_lock);
    if (!_collecting) return;
    if (_rate != data.sampleRate) _samples.clear();
    _rate = data.sampleRate;
    bool silent = true;
    for (int i = 0; i < data.frames * data.channels; ++i)
      silent = silent && std::abs(data.samples[i]) < 500;
    if (silent) return _samples.clear();
    for (int i = 0; i < data.frames; ++i) _samples.push_back(data.samples[i * data.channels]);
  }
  _wake.notify_all();
}

std::optional<double> ToneWatch::purity(double hz, milliseconds patience) {
  std::unique_lock held(_lock);
  _samples.clear();
  _collecting = true;
  const bool enough = _wake.wait_for(held, patience, [&] {
    return _rate > 0 && _samples.size() >= static_cast<std::size_t>(_rate) / 2;
  });
  _collecting = false;
  if (!enough) return std::nullopt;
  // Goertzel's algorithm over a window of whole milliseconds.
  const auto n = static_cast<std::size_t>(_rate) / 2;
  const double turn = 2 * std::cos(2 * std::numbers::pi * hz / _rate);
  double before = 0, last = 0, energy = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const double now = _samples[i] + turn * last - before;
    before = last;
    last = now;
    energy += _samples[i] * _samples[i];
  }
  const double power = last * last + before * before - turn * last * before;
  return 2 * power / (energy * static_cast<double>(n));
}

// ---- the participant ---------------------------------------------------------------------------

std::shared_ptr<Endpoint> Endpoint::make(Sfu& sfu, bool tcp) {
  installPlatform();
  std::shared_ptr<Endpoint> self(new Endpoint(sfu));
  self->device = makeDevice();
  self->device->load(boost::json::serialize(sfu.call("capabilities")));
  self->sending = self->device->createSendTransport(self->transportDetails(tcp));
  self->receiving = self->device->createReceiveTransport(self->transportDetails(tcp));
  self->sending->setDelegate(self);
  self->receiving->setDelegate(std::weak_ptr<TransportDelegate>(self));
  self->_capture = makeCaptureDevices();
  return self;
}

Endpoint::~Endpoint() {
  for (const auto& camera : _cameras) camera->stopCapture({});
  _cameras.clear();
  _microphones.clear();
  if (sending) sending->close();
  if (receiving) receiving->close();
}

TransportDetails Endpoint::transportDetails(bool tcp) {
  const auto answer = sfu.call("createTransport", {{"tcp", tcp}});
  TransportDetails details;
  details.id = text(answer, "id", "");
  details.iceParameters = boost::json::serialize(answer.at("iceParameters"));
  details.iceCandidates = boost::json::serialize(answer.at("iceCandidates"));
  details.dtlsParameters = boost::json::serialize(answer.at("dtlsParameters"));
  return details;
}

std::shared_ptr<RTCVideoTrack> Endpoint::cameraTrack(int width, int height) {
  auto factory = sharedPeerConnectionFactory();
  auto source = factory->videoSource();
  _capture->configure({.camera = "pattern", .microphone = "none"});
  auto camera = _capture->makeCameraCapturer();
  camera->onFrame([source](const VideoFrame& frame) { source->onFrame(frame); });
  camera->startCapture(_capture->cameras().front(), {width, height, 30}, 30, {});
  _cameras.push_back(std::move(camera));
  return factory->videoTrack(source, "ARDAMSv0");
}

std::shared_ptr<RTCAudioTrack> Endpoint::toneTrack(double hz) {
  auto factory = sharedPeerConnectionFactory();
  auto source = factory->audioSource({});
  _capture->configure({.camera = "none", .microphone = "tone", .toneHz = hz});
  auto microphone = _capture->makeMicrophoneCapturer();
  microphone->start(source);
  _microphones.push_back(std::move(microphone));
  return factory->audioTrack(source, "ARDAMSa0");
}

std::shared_ptr<Producer> Endpoint::produce(ProducerOptions options) {
  return await(sending->createProducer(std::move(options)));
}

std::shared_ptr<Consumer> Endpoint::consume(const std::string& producerId, bool encrypted) {
  const auto offer =
      sfu.call("consume", {{"transportId", receiving->id()},
                           {"producerId", producerId},
                           {"rtpCapabilities", *parseJson(device->rtpCapabilities())}});
  const auto kind = text(offer, "kind", "") == "video" ? MediaKind::video : MediaKind::audio;
  auto consumer =
      receiving->consume(text(offer, "id", ""), producerId, kind,
                         boost::json::serialize(offer.at("rtpParameters")), "{}", encrypted);
  sfu.call("resumeConsumer", {{"consumerId", consumer->id()}});
  return consumer;
}

std::shared_ptr<ClockWatch> Endpoint::watch(const std::shared_ptr<Consumer>& consumer) {
  auto sink = std::make_shared<ClockWatch>();
  _sinks.push_back(sink);
  std::dynamic_pointer_cast<RTCVideoTrack>(consumer->track())->addSink(sink);
  return sink;
}

std::shared_ptr<ToneWatch> Endpoint::listen(const std::shared_ptr<Consumer>& consumer) {
  auto sink = std::make_shared<ToneWatch>();
  _sinks.push_back(sink);
  std::dynamic_pointer_cast<RTCAudioTrack>(consumer->track())->addSink(sink);
  return sink;
}

std::string Endpoint::codec(const std::string& mimeType) const {
  const auto capabilities = parseDictionary(device->rtpCapabilities());
  for (const auto& codec : *list(capabilities, "codecs"))
    if (text(asDictionary(codec), "mimeType", "") == mimeType) return boost::json::serialize(codec);
  return {};
}

void Endpoint::onConnect(const std::shared_ptr<Transport>& transport,
                         const std::string& dtlsParameters) {
  ++connects;
  sfu.request("connect",
              {{"transportId", transport->id()}, {"dtlsParameters", *parseJson(dtlsParameters)}},
              [](auto) {});
}

void Endpoint::onConnectionStateChange(const std::shared_ptr<Transport>&,
                                       TransportConnectionState) {
  std::scoped_lock held(_lock);
  _wake.notify_all();
}

void Endpoint::onProduce(const std::shared_ptr<SendTransport>& transport, MediaKind kind,
                         const std::string& rtpParameters, const std::string&,
                         ProduceCallback callback) {
  if (produceAnswer) return produceAnswer(std::move(callback));
  sfu.request("produce",
              {{"transportId", transport->id()},
               {"kind", kind == MediaKind::video ? "video" : "audio"},
               {"rtpParameters", *parseJson(rtpParameters)}},
              [callback](std::optional<Dictionary> answer) {
                callback(answer ? text(*answer, "id") : std::nullopt);
              });
}

// ---- without a server --------------------------------------------------------------------------

std::string routerCapabilities() {
  std::ifstream file(TEST_FOLDER "/data/router-capabilities.json");
  std::stringstream content;
  content << file.rdbuf();
  return content.str();
}

std::shared_ptr<Device> loadedDevice() {
  installPlatform();
  auto device = makeDevice();
  device->load(routerCapabilities());
  return device;
}

TransportDetails deadTransport() {
  TransportDetails details;
  details.id = "dead";
  details.iceParameters =
      R"({"usernameFragment":"abcdefgh","password":"abcdefghijklmnopqrstuvwx","iceLite":true})";
  details.iceCandidates = R"([{"foundation":"udpcandidate","priority":1076302079,"ip":"127.0.0.1",)"
                          R"("port":9,"protocol":"udp","type":"host"}])";
  std::string print = "AA";
  for (int i = 1; i < 32; ++i) print += ":AA";
  details.dtlsParameters =
      R"({"role":"auto","fingerprints":[{"algorithm":"sha-256","value":")" + print + "\"}]}";
  return details;
}

std::vector<RTCRtpEncodingParameters> threeLayers() {
  RTCRtpEncodingParameters low{.rid = "q", .maxBitrateBps = 150'000, .scaleResolutionDownBy = 4.0};
  RTCRtpEncodingParameters middle{
      .rid = "h", .maxBitrateBps = 500'000, .scaleResolutionDownBy = 2.0};
  RTCRtpEncodingParameters high{
      .rid = "f", .maxBitrateBps = 1'500'000, .scaleResolutionDownBy = 1.0};
  return {low, middle, high};
}

}  // namespace kestrova::test
