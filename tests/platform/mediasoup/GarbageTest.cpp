#include <kestrova/platform/linux/mediasoup/Ortc.h>
#include <kestrova/platform/linux/mediasoup/TransportParameters.h>
#include <kestrova/platform/linux/webrtc/PeerConnectionFactory.h>

#include <gtest/gtest.h>

#include "Endpoint.h"
#include <limits>

// The engine checks itself in debug builds and ends the process where it was misled: that these
// tests come to their end is half of what they prove.
namespace kestrova::test {
namespace {

/// Everything that may stand where something sensible was expected.
List garbage() {
  return {nullptr,
          true,
          -1,
          0,
          70,
          4294967296,
          std::numeric_limits<std::int64_t>::max(),
          1e300,
          0.5,
          "",
          "x\r\na=candidate:evil",
          "video/rtx",
          std::string(5000, 'a'),
          Dictionary(),
          Dictionary{{"apt", 1}},
          List(),
          List{nullptr, 5, "x"}};
}

/// Calls `visit` with `root` changed in one place, for every place and every piece of garbage.
template <class Visit>
void mutateEverywhere(Value& root, Value& place, const Visit& visit) {
  const Value original = place;
  for (const auto& junk : garbage()) {
    place = junk;
    visit(root);
  }
  place = original;
  if (place.is_object()) {
    for (auto& member : place.get_object()) mutateEverywhere(root, member.value(), visit);
    for (const auto& member : original.get_object()) {
      place.get_object().erase(member.key());
      visit(root);
      place = original;
    }
  } else if (place.is_array()) {
    auto& entries = place.get_array();
    for (auto& entry : entries) mutateEverywhere(root, entry, visit);
    if (!entries.empty()) {
      entries.push_back(entries.front());
      visit(root);
      place = original;
    }
  }
}

template <class Visit>
int mutations(const std::string& json, const Visit& visit) {
  auto root = *parseJson(json);
  int count = 0;
  mutateEverywhere(root, root, [&](const Value& changed) {
    ++count;
    visit(boost::json::serialize(changed));
  });
  return count;
}

/// Runs `block`; it may fail in one way only.
template <class Block>
bool succeeds(const Block& block) {
  try {
    block();
    return true;
  } catch (const MediasoupError& error) {
    EXPECT_STRNE(error.what(), "");
    return false;
  }
}

std::string videoParameters(const std::string& mid, std::uint32_t ssrc) {
  const auto number = [](std::uint32_t value) { return std::to_string(value); };
  return R"({"mid":")" + mid +
         R"(","codecs":[{"mimeType":"video/VP8","payloadType":101,"clockRate":90000,"parameters":{},)"
         R"("rtcpFeedback":[{"type":"nack","parameter":"pli"},{"type":"transport-cc","parameter":""}]},)"
         R"({"mimeType":"video/rtx","payloadType":102,"clockRate":90000,"parameters":{"apt":101},)"
         R"("rtcpFeedback":[]}],"headerExtensions":[)"
         R"({"uri":"urn:ietf:params:rtp-hdrext:sdes:mid","id":1,"encrypt":false,"parameters":{}},)"
         R"({"uri":"http://www.webrtc.org/experiments/rtp-hdrext/abs-send-time","id":4}],)"
         R"("encodings":[{"ssrc":)" +
         number(ssrc) + R"(,"rtx":{"ssrc":)" + number(ssrc + 1) +
         R"(},"scalabilityMode":"L1T3"}],"rtcp":{"cname":"abcd","reducedSize":true,"mux":true}})";
}

TEST(Garbage, InCapabilities) {
  const auto own = mediasoup::parseRtpCapabilities(routerCapabilities());
  const int tried = mutations(routerCapabilities(), [&](const std::string& json) {
    succeeds([&] {
      const auto common = mediasoup::commonCapabilities(own, mediasoup::parseRtpCapabilities(json));
      toJson(mediasoup::receivingCapabilities(common));
      for (const auto kind : {MediaKind::audio, MediaKind::video}) {
        mediasoup::sendingParameters(common, kind);
        mediasoup::answeringParameters(common, kind);
      }
    });
  });
  EXPECT_GT(tried, 1000);
}

TEST(Garbage, InADevice) {
  installPlatform();
  auto device = loadedDevice();
  EXPECT_THROW(device->load(routerCapabilities()), MediasoupError) << "a second time";
  EXPECT_TRUE(device->canProduce(MediaKind::video));

  auto transport = device->createReceiveTransport(deadTransport());
  int accepted = 0;
  mutations(videoParameters("m1", 1000), [&](const std::string& json) {
    std::shared_ptr<Consumer> consumer;
    if (!succeeds([&] { consumer = transport->consume("c", "p", MediaKind::video, json, ""); }))
      return;
    ++accepted;
    consumer->close();
  });
  EXPECT_GT(accepted, 0);
  const auto consume = [&](const char* mid, std::uint32_t ssrc, MediaKind kind = MediaKind::video) {
    return succeeds([&] { transport->consume("c", "p", kind, videoParameters(mid, ssrc), "{}"); });
  };
  EXPECT_TRUE(consume("a", 2000)) << "after all that";
  EXPECT_FALSE(consume("a", 3000)) << "a mid twice";
  EXPECT_FALSE(consume("b", 2000)) << "an SSRC twice";
  EXPECT_FALSE(consume("b", 1999)) << "an RTX SSRC that is another's";
  EXPECT_FALSE(consume("b", 3000, MediaKind::audio)) << "a video codec for audio";
  EXPECT_TRUE(consume("b", 3000));
  for (const char* ice : {"", "[]", "{}", R"({"usernameFragment":"a b c d","password":"x"})"})
    EXPECT_THROW(transport->restartICE(ice), MediasoupError) << ice;
}

TEST(Garbage, InTransports) {
  auto device = loadedDevice();
  const auto tryDetails = [&](const TransportDetails& details) {
    succeeds([&] {
      auto transport = device->createReceiveTransport(details);
      transport->consume("c", "p", MediaKind::video, videoParameters("m", 1), "");
      transport->close();
    });
  };
  for (auto field : {&TransportDetails::iceParameters, &TransportDetails::iceCandidates,
                     &TransportDetails::dtlsParameters}) {
    auto details = deadTransport();
    mutations(details.*field, [&](const std::string& json) {
      details.*field = json;
      tryDetails(details);
    });
    details.*field = "no JSON";
    EXPECT_THROW(device->createSendTransport(details), MediasoupError);
  }
  auto details = deadTransport();
  for (const char* servers : {"{}", R"([{"urls":[]}])", R"([{"urls":"stun:a b"}])", R"([5])",
                              R"([{"urls":"not-an-ice-url"}])", R"([{"urls":"turn:127.0.0.1"}])"}) {
    details.iceServers = servers;
    EXPECT_THROW(device->createSendTransport(details), MediasoupError) << servers;
  }
  details.iceServers = R"([{"urls":["stun:127.0.0.1:1"]}])";
  EXPECT_TRUE(succeeds([&] { device->createSendTransport(details); }));
  details.id.clear();
  EXPECT_THROW(device->createSendTransport(details), MediasoupError);
}

struct ForeignTrack : RTCVideoTrack {
  std::string id() const override { return "foreign"; }
  bool isEnabled() const override { return true; }
  void setEnabled(bool) override {}
  void addSink(const std::shared_ptr<VideoSink>&) override {}
  void removeSink(const std::shared_ptr<VideoSink>&) override {}
};

TEST(Garbage, InProducerOptions) {
  auto device = loadedDevice();
  auto transport = device->createSendTransport(deadTransport());
  auto factory = sharedPeerConnectionFactory();
  const auto video = factory->videoTrack(factory->videoSource(), "a \r\nb");
  const auto audio = factory->audioTrack(factory->audioSource({}), "");
  const auto layer = [](auto change) {
    RTCRtpEncodingParameters encoding;
    change(encoding);
    return std::vector{encoding};
  };
  const auto twoOf = [&](const char* first, const char* second) {
    return std::vector{RTCRtpEncodingParameters{.rid = first},
                       RTCRtpEncodingParameters{.rid = second}};
  };
  const std::pair<const char*, ProducerOptions> refused[] = {
      {"no track", {}},
      {"another's track", {.track = std::make_shared<ForeignTrack>()}},
      {"options no JSON", {.track = video, .codecOptions = "{"}},
      {"options a list", {.track = video, .codecOptions = "[]"}},
      {"codec no JSON", {.track = video, .codec = "{"}},
      {"codec unknown", {.track = video, .codec = R"({"mimeType":"video/AV7","clockRate":90000})"}},
      {"codec of audio",
       {.track = video, .codec = R"({"mimeType":"audio/opus","clockRate":48000,"channels":2})"}},
      {"two layers of audio", {.track = audio, .encodings = twoOf("a", "b")}},
      {"one rid twice", {.track = video, .encodings = twoOf("a", "a")}},
      {"a strange rid", {.track = video, .encodings = twoOf("a", "b\r\nc")}},
      {"bitrate", {.track = video, .encodings = layer([](auto& e) { e.maxBitrateBps = -5; })}},
      {"rate", {.track = video, .encodings = layer([](auto& e) { e.maxFramerate = -1; })}},
      {"scale",
       {.track = video, .encodings = layer([](auto& e) { e.scaleResolutionDownBy = 0.0; })}},
      {"no number", {.track = video, .encodings = layer([](auto& e) {
                                       e.maxFramerate = std::numeric_limits<double>::quiet_NaN();
                                     })}},
      {"mode", {.track = video, .encodings = layer([](auto& e) { e.scalabilityMode = "L9T9"; })}},
  };
  for (const auto& [what, options] : refused)
    EXPECT_THROW(await(transport->createProducer(options)), MediasoupError) << what;

  // Without a delegate there is nobody to ask: that is a refusal too, after the negotiation.
  const char* odd = R"({"opusPtime":-3,"opusStereo":"yes","opusMaxPlaybackRate":1e300,"x":[]})";
  EXPECT_THROW(await(transport->createProducer({.track = audio, .codecOptions = odd})),
               MediasoupError);
  EXPECT_THROW(await(transport->createProducer({.track = video, .encodings = threeLayers()})),
               MediasoupError);

  // A task that is awaited late holds what it was asked of.
  auto late = transport->createProducer({.track = audio});
  auto statistics = transport->stats();
  transport.reset();
  EXPECT_THROW(await(std::move(late)), MediasoupError);
  EXPECT_NE(await(std::move(statistics)), "");
}

}  // namespace
}  // namespace kestrova::test
