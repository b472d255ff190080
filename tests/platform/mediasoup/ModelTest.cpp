#include <kestrova/platform/linux/mediasoup/CodecOptions.h>
#include <kestrova/platform/linux/mediasoup/H264Profile.h>
#include <kestrova/platform/linux/mediasoup/Ortc.h>
#include <kestrova/platform/linux/mediasoup/RemoteSdp.h>
#include <kestrova/platform/linux/mediasoup/SdpReader.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Endpoint.h"

namespace kestrova::test {
namespace {

using namespace mediasoup;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char* kOffer =
    "v=0\r\no=- 1 2 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\na=group:BUNDLE 0 1\r\n"
    "m=audio 9 UDP/TLS/RTP/SAVPF 111 9\r\na=fingerprint:sha-256 AB:CD\r\na=mid:0\r\n"
    "a=rtpmap:111 opus/48000/2\r\na=rtcp-fb:111 transport-cc\r\n"
    "a=fmtp:111 minptime=10;useinbandfec=1\r\na=rtpmap:9 G722/8000\r\n"
    "a=extmap:1 urn:ietf:params:rtp-hdrext:ssrc-audio-level\r\n"
    "a=extmap:4 urn:ietf:params:rtp-hdrext:sdes:mid\r\na=ssrc:77 cname:who\r\n"
    "m=video 9 UDP/TLS/RTP/SAVPF 96 97 98 99 35 36\r\na=mid:1\r\n"
    "a=rtpmap:96 VP8/90000\r\na=rtcp-fb:96 goog-remb\r\na=rtcp-fb:96 transport-cc\r\n"
    "a=rtcp-fb:96 nack\r\na=rtcp-fb:96 nack pli\r\na=rtpmap:97 rtx/90000\r\na=fmtp:97 apt=96\r\n"
    "a=rtpmap:98 H264/90000\r\n"
    "a=fmtp:98 level-asymmetry-allowed=1;packetization-mode=1;profile-level-id=420034\r\n"
    "a=rtpmap:99 H264/90000\r\n"
    "a=fmtp:99 level-asymmetry-allowed=1;packetization-mode=1;profile-level-id=42e034\r\n"
    "a=rtpmap:35 rtx/90000\r\na=fmtp:35 apt=99\r\na=rtpmap:36 VP9/90000\r\na=fmtp:36 "
    "profile-id=2\r\n"
    "a=extmap:14/sendrecv urn:ietf:params:rtp-hdrext:toffset\r\n"
    "a=extmap:3 http://www.ietf.org/id/draft-holmer-rmcat-transport-wide-cc-extensions-01\r\n"
    "a=extmap:4 urn:ietf:params:rtp-hdrext:sdes:mid\r\na=extmap:7 urn:nobody:else:has:this\r\n"
    "a=ssrc-group:FID 5 6\r\na=ssrc:5 cname:who\r\na=ssrc:6 cname:who\r\n";

CommonCapabilities common() {
  return commonCapabilities(offeredCapabilities(parseSdp(kOffer)),
                            parseRtpCapabilities(routerCapabilities()));
}

TEST(Ortc, KeepsWhatBothSidesHaveInTheRoutersOrder) {
  std::vector<std::string> found;
  for (const auto& codec : common().codecs)
    found.push_back(codec.mimeType + " " + std::to_string(codec.localPayloadType) + "/" +
                    std::to_string(codec.localRtxPayloadType.value_or(0)) + " " +
                    std::to_string(codec.remotePayloadType) + "/" +
                    std::to_string(codec.remoteRtxPayloadType.value_or(0)));
  // VP9 differs in its profile, G722 is ours alone; of two H264 the one with the router's profile.
  EXPECT_THAT(found, ElementsAre("audio/opus 111/0 100/0", "video/VP8 96/97 101/102",
                                 "video/H264 99/35 105/106"));
  EXPECT_TRUE(canSend(common(), MediaKind::video));
  EXPECT_FALSE(canSend({}, MediaKind::video));
}

TEST(Ortc, NegotiatesOnlyHeaderExtensionsThatTheRouterHas) {
  const auto uris = [](const RtpParameters& parameters) {
    std::vector<std::string> list;
    for (const auto& extension : parameters.headerExtensions)
      list.push_back(std::to_string(extension.id) + " " +
                     extension.uri.substr(extension.uri.find_last_of(":/") + 1));
    return list;
  };
  EXPECT_THAT(
      uris(sendingParameters(common(), MediaKind::video)),
      ElementsAre("4 mid", "3 draft-holmer-rmcat-transport-wide-cc-extensions-01", "14 toffset"));
  EXPECT_THAT(uris(sendingParameters(common(), MediaKind::audio)),
              ElementsAre("4 mid", "1 ssrc-audio-level"));
  auto router = parseRtpCapabilities(routerCapabilities());
  router.headerExtensions.clear();
  const auto bare = commonCapabilities(offeredCapabilities(parseSdp(kOffer)), router);
  EXPECT_TRUE(sendingParameters(bare, MediaKind::video).headerExtensions.empty());
  // With neither extension there is no bandwidth estimation to speak of.
  const auto silent = answeringParameters(bare, MediaKind::video);
  for (const auto& feedback : silent.codecs.front().rtcpFeedback)
    EXPECT_TRUE(feedback.type == "nack" || feedback.type == "ccm") << feedback.type;
  const auto estimating = answeringParameters(common(), MediaKind::video);
  bool transportWide = false;
  for (const auto& feedback : estimating.codecs.front().rtcpFeedback) {
    EXPECT_NE(feedback.type, "goog-remb");
    transportWide = transportWide || feedback.type == "transport-cc";
  }
  EXPECT_TRUE(transportWide);
}

TEST(Ortc, ReceivesOnlyWhatItOffered) {
  struct {
    const char* mimeType;
    int payloadType;
    bool received;
  } const cases[] = {{"video/VP8", 101, true},
                     {"video/vp8", 101, true},
                     {"video/VP8", 96, false},
                     {"video/H264", 101, false},
                     {"video/VP9", 103, false}};
  for (const auto& given : cases) {
    RtpCodec codec;
    codec.kind = MediaKind::video;
    codec.mimeType = given.mimeType;
    codec.payloadType = given.payloadType;
    codec.clockRate = 90000;
    EXPECT_EQ(canReceive(common(), {.codecs = {codec}}), given.received)
        << given.mimeType << given.payloadType;
  }
  EXPECT_FALSE(canReceive(common(), {}));
}

TEST(Ortc, ChoosesTheCodecAskedFor) {
  const auto codecs = sendingParameters(common(), MediaKind::video).codecs;
  EXPECT_EQ(chosenCodecs(codecs, std::nullopt).front().mimeType, "video/VP8");
  const auto wanted =
      parseCodecCapability(R"({"kind":"video","mimeType":"video/h264","clockRate":90000,)"
                           R"("parameters":{"packetization-mode":1,"profile-level-id":"42e01f"}})");
  const auto chosen = chosenCodecs(codecs, wanted);
  ASSERT_EQ(chosen.size(), 2u);
  EXPECT_EQ(chosen[0].payloadType, 99);
  EXPECT_EQ(chosen[1].apt(), 99);
  auto other = wanted;
  other.parameters["packetization-mode"] = 0;
  EXPECT_THROW(chosenCodecs(codecs, other), MediasoupError);

  // A server may name another one first.
  EXPECT_EQ(chosenCodecs({chosen[0], codecs[0]}, std::nullopt).front().mimeType, "video/VP8");
  EXPECT_EQ(chosenCodecs(chosen, std::nullopt).front().payloadType, 99);
}

TEST(H264, ComparesProfilesAndAnswersLevels) {
  const auto parameters = [](const char* level, int mode, int asymmetry) {
    Dictionary result{{"packetization-mode", mode}, {"level-asymmetry-allowed", asymmetry}};
    if (level) result["profile-level-id"] = level;
    return result;
  };
  struct {
    const char* a;
    const char* b;
    bool same;
    const char* lower;  // the answer where levels must agree
  } const cases[] = {
      {"42e01f", "42e034", true, "42e01f"},  {"42e01f", "4d8015", true, "42e015"},
      {"42e01f", "42001f", false, nullptr},  {"4d001f", "4d0032", true, "4d001f"},
      {"640c1f", "64001f", false, nullptr},  {"640c1f", "640c0b", true, "640c0b"},
      {"42f00b", "42e00c", true, "42f00b"},  {"42f00b", "42e00a", true, "42e00a"},
      {"42e01f", "42e0ff", false, nullptr},  {"42e01f", "zzzzzz", false, nullptr},
      {"42e01f", "42e01f0", false, nullptr}, {"42e034", nullptr, true, "42e01f"},
      {"42001f", nullptr, false, nullptr},
  };
  for (const auto& given : cases) {
    const auto a = parameters(given.a, 1, 0);
    const auto b = parameters(given.b, 1, 1);
    EXPECT_EQ(sameH264(a, b), given.same) << given.a << " " << (given.b ? given.b : "none");
    EXPECT_FALSE(sameH264(a, parameters(given.b, 0, 1)));
    if (!given.same) continue;
    EXPECT_EQ(answeredH264(a, b), given.lower);
    EXPECT_EQ(answeredH264(b, a), given.lower);
  }
  EXPECT_EQ(answeredH264(parameters("42e034", 1, 1), parameters("42e01f", 1, 1)), "42e034");
}

TEST(CodecOptions, TellBothSidesAndIgnoreNonsense) {
  auto offered = sendingParameters(common(), MediaKind::audio).codecs.front();
  auto answered = offered;
  const auto options = parseDictionary(
      R"({"opusStereo":true,"opusFec":false,"opusDtx":true,"opusPtime":0,"opusMaxPlaybackRate":48000,)"
      R"("videoGoogleStartBitrate":1000})");
  applyCodecOptions(options, offered, answered);
  EXPECT_EQ(offered.parameters.at("sprop-stereo"), 1);
  EXPECT_EQ(offered.parameters.at("usedtx"), 1);
  EXPECT_EQ(offered.parameters.at("useinbandfec"), 0);
  EXPECT_EQ(answered.parameters.at("stereo"), 1);
  EXPECT_EQ(answered.parameters.at("maxplaybackrate"), 48000);
  EXPECT_FALSE(answered.parameters.contains("ptime"));
  EXPECT_FALSE(answered.parameters.contains("x-google-start-bitrate"));

  auto video = sendingParameters(common(), MediaKind::video).codecs.front();
  auto told = video;
  applyCodecOptions(options, video, told);
  EXPECT_EQ(told.parameters.at("x-google-start-bitrate"), 1000);
  EXPECT_TRUE(isScalabilityMode(video, "L1T3"));
  EXPECT_FALSE(isScalabilityMode(video, "L3T3"));
}

TEST(Sdp, ConsentsToStereoInOneSectionOnly) {
  const std::string two =
      "m=audio 9 x 100\r\na=mid:a\r\na=fmtp:100 minptime=10\r\n"
      "m=audio 9 x 100\r\na=mid:b\r\na=fmtp:100 minptime=10\r\n";
  EXPECT_EQ(withStereo(two, "b", 100), two.substr(0, two.size() - 2) + ";stereo=1\r\n");
  EXPECT_EQ(withStereo(withStereo(two, "a", 100), "a", 100), withStereo(two, "a", 100));
  EXPECT_EQ(withStereo(two, "c", 100), two);
  EXPECT_EQ(withStereo(two, "a", 101), two);
  const auto cut = two.substr(0, two.size() - 2);
  EXPECT_EQ(withStereo(cut, "b", 100), cut + ";stereo=1") << "the last line has no end";
}

TEST(Sdp, TakesBackWhatTheEngineRefused) {
  RemoteSdp remote(parseTransport(deadTransport()), RemoteSdp::Role::offerer);
  const auto put = [&](const char* mid) {
    RemoteSection section;
    section.mid = mid;
    section.direction = Direction::sendonly;
    section.codecs = sendingParameters(common(), MediaKind::audio).codecs;
    remote.put(remote.freeIndex(), section);
  };
  for (const char* mid : {"a", "b", "c"}) put(mid);
  const auto before = remote.snapshot();
  remote.setIce({"other", "password", false});
  EXPECT_TRUE(remote.close("b"));
  put("d");
  EXPECT_THAT(remote.text(), HasSubstr("a=group:BUNDLE a d c\r\n"));
  remote.restore(before);
  EXPECT_THAT(remote.text(), HasSubstr("a=group:BUNDLE a b c\r\n"));
  EXPECT_THAT(remote.text(), HasSubstr("a=ice-ufrag:abcdefgh\r\n"));
}

}  // namespace
}  // namespace kestrova::test
