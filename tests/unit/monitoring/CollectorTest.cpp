#include <kestrova/monitoring/Collector.h>
#include <kestrova/monitoring/StatsExtraction.h>
#include <kestrova/monitoring/StreamMeter.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestPlatform.h>

#include "EngineStats.h"

namespace kestrova::test {
namespace {

using testing::DoubleEq;
using testing::IsEmpty;

double at(const Dictionary& entry, std::string_view key) {
  return number(entry, key).value_or(-1);
}

class CollectorTest : public testing::Test {
protected:
  Dictionary analyze(const List& raw) {
    _now += 2000;
    const auto* previous = _report.empty() ? nullptr : &_report;
    auto report = collector.analyze(raw, previous, _now);
    _report = std::move(report);
    return _report;
  }
  const Dictionary& stream(const char* kind, const char* ssrc) const {
    return asDictionary(asDictionary(_report.at(kind)).at(ssrc));
  }
  const Dictionary& section(const char* key) const { return asDictionary(_report.at(key)); }
  Dictionary formatted(const char* kind) const {
    const auto report = Collector::formatCollectedStats(_report);
    return asDictionary(list(report, kind)->at(0));
  }

  TestPlatform platform;
  Collector collector{{.probeId = "p", .roomId = "room", .name = "RoomMetrics", .peerId = "me"}};

private:
  std::int64_t _now = 1'000'000;
  Dictionary _report;
};

TEST_F(CollectorTest, differencesAreTakenToTheLookBefore) {
  const Dictionary first{{"packetsReceived", 90},
                         {"packetsLost", 10},
                         {"bytesReceived", 10240},
                         {"jitter", 0.004},
                         {"concealmentEvents", 3},
                         {"trackId", "T1"},
                         {"insertedSamplesForDeceleration", 7}};
  analyze({received("audio", 11, "ada-sound", first)});
  EXPECT_EQ(at(stream("audio", "11"), "delta_packets_in"), 90) << "nothing before: the total";
  EXPECT_EQ(at(stream("audio", "11"), "delta_kbs_in"), 0) << "no time has passed";

  const Dictionary second{{"packetsReceived", 180},
                          {"packetsLost", 20},
                          {"bytesReceived", 20480},
                          {"jitter", 0.006},
                          {"concealmentEvents", 4},
                          {"trackId", "T1"},
                          {"insertedSamplesForDeceleration", 7}};
  analyze({received("audio", 11, "ada-sound", second)});
  const auto& ear = stream("audio", "11");
  EXPECT_EQ(at(ear, "delta_packets_in"), 90);
  EXPECT_EQ(at(ear, "percent_packets_lost_in"), 10);
  EXPECT_EQ(at(ear, "total_KBytes_in"), 20);
  EXPECT_EQ(at(ear, "delta_KBytes_in"), 10);
  EXPECT_THAT(at(ear, "delta_kbs_in"), DoubleEq(10 * 8 * 1024 / 2000.0));
  EXPECT_EQ(at(ear, "delta_jitter_ms_in"), 6);
  EXPECT_EQ(at(ear, "delta_concealment_events"), 1);
  EXPECT_EQ(at(ear, "total_inserted_samples_for_decelaration"), 7);
  EXPECT_EQ(at(ear, "delta_removed_samples_for_accelaration"), 0);

  // The counters start over: the difference has no sign.
  analyze(
      {received("audio", 11, "ada-sound", {{"packetsReceived", 80}, {"bytesReceived", 10240}})});
  EXPECT_EQ(at(stream("audio", "11"), "delta_packets_in"), 100);
  EXPECT_EQ(at(stream("audio", "11"), "delta_KBytes_in"), 10);
}

TEST_F(CollectorTest, whatIsSentIsJoinedByWhatTheOtherSideReports) {
  const auto raw = [](double total, int measurements) -> List {
    return {source("video", "camera"),
            Dictionary{
                {"type", "codec"}, {"id", "C1"}, {"mimeType", "video/VP8"}, {"clockRate", 90000}},
            Dictionary{{"type", "codec"}, {"id", "C2"}, {"mimeType", "video/rtx"}},
            reported("video", 5,
                     {{"totalRoundTripTime", total},
                      {"roundTripTimeMeasurements", measurements},
                      {"roundTripTime", 0.5},
                      {"fractionLost", 0.25},
                      {"jitter", 0.002},
                      {"packetsLost", 4}}),
            sent("video", 5,
                 {{"bytesSent", 2048},
                  {"packetsSent", 3},
                  {"codecId", "C1"},
                  {"frameWidth", 640},
                  {"frameHeight", 360},
                  {"framesPerSecond", 30},
                  {"qualityLimitationReason", "cpu"},
                  {"qualityLimitationResolutionChanges", 2}}),
            sent("video", 6, {{"codecId", "C2"}})};
  };
  analyze(raw(0.2, 2));
  EXPECT_EQ(at(stream("video", "5"), "delta_rtt_ms_out"), 100);
  analyze(raw(0.5, 4));
  const auto& camera = stream("video", "5");
  EXPECT_EQ(at(camera, "delta_rtt_ms_out"), 150) << "the mean of the two new ones";
  EXPECT_EQ(text(camera, "track_id_out"), "camera");
  EXPECT_EQ(at(camera, "percent_packets_lost_out"), 25);
  EXPECT_FALSE(stream("video", "6").contains("codec_out")) << "a codec of retransmissions is none";
  analyze(raw(0.5, 4));
  EXPECT_EQ(at(stream("video", "5"), "delta_rtt_ms_out"), 500) << "nothing new: the present one";

  const auto entry = formatted("video");
  EXPECT_EQ(text(entry, "direction"), "outbound");
  EXPECT_EQ(text(entry, "codec"), "video/VP8");
  EXPECT_EQ(text(entry, "trackId"), "camera");
  EXPECT_EQ(at(entry, "jitter"), 2);
  EXPECT_EQ(at(*dictionary(entry, "size"), "framerate"), 30);
  EXPECT_EQ(text(*dictionary(entry, "limitation"), "reason"), "cpu");
  EXPECT_FALSE(entry.contains("freezeCount"));
  EXPECT_FALSE(entry.contains("rtt")) << "no pair of candidates, no number made up";
}

TEST_F(CollectorTest, onlyTheNominatedPairIsTheNetwork) {
  const List raw{
      candidate("B", {{"networkType", "wifi"},
                      {"protocol", "udp"},
                      {"candidateType", "host"},
                      {"relayProtocol", "tls"}}),
      pair("A", false, {{"bytesSent", 0}}),
      pair("B", true,
           {{"bytesSent", 4096},
            {"bytesReceived", 1024},
            {"currentRoundTripTime", 0.02},
            {"availableOutgoingBitrate", 1024000}}),
      pair("C", false, {{"bytesSent", 0}}),
      candidate("C", {{"networkType", "ethernet"}}),
      received("video", 1, "picture", {{"freezeCount", 2}, {"totalFreezesDuration", 1.5}})};
  analyze(raw);
  EXPECT_EQ(at(section("data"), "total_KBytes_sent"), 4);
  EXPECT_EQ(at(section("network"), "delta_rtt_connectivity_ms"), 20);
  EXPECT_EQ(at(section("network"), "kbs_outgoing_bandwidth"), 1000);
  EXPECT_FALSE(section("network").contains("local_candidate_relay_protocol")) << "it is no relay";
  const auto entry = formatted("video");
  EXPECT_EQ(text(entry, "network"), "wifi");
  EXPECT_EQ(at(entry, "rtt"), 20);
  EXPECT_EQ(integer(entry, "freezeCount"), 2);
  EXPECT_EQ(at(entry, "totalFreezesDuration"), 1.5);
}

TEST_F(CollectorTest, aStreamThatWasAwayStartsAgain) {
  const auto look = [](int packets) {
    return received("audio", 1, "t", {{"packetsReceived", packets}});
  };
  analyze({look(100)});
  analyze({received("audio", 2, "u")});
  EXPECT_FALSE(section("audio").contains("1"));
  EXPECT_TRUE(section("audio").contains("2"));
  analyze({look(150)});
  EXPECT_EQ(at(stream("audio", "1"), "delta_packets_in"), 150);
}

TEST_F(CollectorTest, oddStatisticsAreTakenForWhatTheyAre) {
  const List odd{nullptr,
                 7,
                 "text",
                 Dictionary(),
                 Dictionary{{"type", 4}},
                 Dictionary{{"type", "data-channel"}, {"ssrc", 9}, {"kind", "audio"}},
                 Dictionary{{"type", "inbound-rtp"}},
                 Dictionary{{"type", "inbound-rtp"}, {"ssrc", "x"}, {"kind", "audio"}},
                 Dictionary{{"type", "inbound-rtp"}, {"ssrc", 3}, {"kind", "smell"}},
                 received("video", 4, "t",
                          {{"packetsReceived", "many"},
                           {"frameWidth", -1.5},
                           {"freezeCount", "two"},
                           {"jitter", Dictionary()}}),
                 Dictionary{{"type", "codec"}},
                 Dictionary{{"type", "media-source"}, {"trackIdentifier", 1}},
                 pair("P", true, {{"currentRoundTripTime", "soon"}, {"bytesSent", List()}})};
  analyze(odd);
  EXPECT_EQ(section("audio").size(), 0u);
  EXPECT_EQ(at(stream("video", "4"), "total_packets_in"), 0);
  EXPECT_FALSE(stream("video", "4").contains("delta_jitter_ms_in"));
  EXPECT_FALSE(formatted("video").contains("rtt"));
  StreamMeter meter;
  meter.measure(odd, 5);
  EXPECT_EQ(meter.measure(odd, 6).at("t").bitrateKbps, 0);

  EXPECT_THAT(collector.collectStats({}), IsEmpty());
  EXPECT_THAT(collector.statsReports(), IsEmpty());
  for (int look = 0; look < 61; ++look) collector.collectStats(odd);
  EXPECT_EQ(collector.statsReports().size(), 60u);
  EXPECT_EQ(integer(collector.statsReports().front(), "count"), 2);
}

TEST(StreamMeterTest, givesAStreamsPresentNumbers) {
  StreamMeter meter;
  const auto picture = [](int bytes, int frames) {
    return received("video", 1, "picture",
                    {{"bytesReceived", bytes},
                     {"framesDecoded", frames},
                     {"packetsReceived", frames * 2},
                     {"packetsLost", frames / 30},
                     {"frameWidth", 1280},
                     {"frameHeight", 720},
                     {"framesPerSecond", 30},
                     {"freezeCount", 1},
                     {"jitter", 0.003},
                     {"codecId", "C"}});
  };
  const auto codec = Dictionary{{"type", "codec"}, {"id", "C"}, {"mimeType", "video/VP9"}};
  meter.measure({picture(0, 0), codec}, 1000);
  auto seen =
      meter
          .measure({picture(250000, 60), codec, pair("P", true, {{"currentRoundTripTime", 0.04}})},
                   3000)
          .at("picture");
  EXPECT_EQ(seen.timestampMs, 3000);
  EXPECT_EQ(seen.bitrateKbps, 1000);
  EXPECT_EQ(seen.framesPerSecond, 30);
  EXPECT_EQ(seen.height, 720);
  EXPECT_EQ(seen.roundTripMs, 40);
  EXPECT_NEAR(*seen.packetLossPercent, 2 * 100 / 122.0, 0.001);
  EXPECT_EQ(seen.jitterMs, 3);
  EXPECT_EQ(seen.freezes, 1);
  EXPECT_EQ(seen.codec, "video/VP9");
  EXPECT_FALSE(seen.audioLevel);

  // The engine goes on saying 30 pictures a second while none comes.
  seen = meter.measure({picture(250000, 60), codec}, 5000).at("picture");
  EXPECT_EQ(seen.framesPerSecond, 0);
  EXPECT_EQ(seen.bitrateKbps, 0);
  EXPECT_FALSE(seen.packetLossPercent) << "of no packets none is lost";
}

TEST(StreamMeterTest, sumsUpTheLayersOfACamera) {
  StreamMeter meter;
  const auto looks = [&](int low, int high, std::int64_t now) {
    const List raw{source("video", "camera"),
                   source("audio", "mic", {{"audioLevel", 0.5}}),
                   sent("video", 1,
                        {{"bytesSent", low},
                         {"framesSent", low / 1000},
                         {"frameWidth", 320},
                         {"frameHeight", 180}}),
                   sent("video", 2,
                        {{"bytesSent", high},
                         {"framesSent", high / 1000},
                         {"frameWidth", 640},
                         {"frameHeight", 360}}),
                   sent("audio", 3),
                   reported("video", 2, {{"roundTripTime", 0.1}, {"fractionLost", 0.5}})};
    return meter.measure(raw, now);
  };
  looks(0, 0, 1000);
  auto seen = looks(10000, 30000, 2000);
  EXPECT_EQ(seen.at("camera").bitrateKbps, 320);
  EXPECT_EQ(seen.at("camera").framesPerSecond, 30);
  EXPECT_EQ(seen.at("camera").width, 640);
  EXPECT_EQ(seen.at("camera").roundTripMs, 100);
  EXPECT_EQ(seen.at("camera").packetLossPercent, 50);
  EXPECT_EQ(seen.at("mic").audioLevel, 0.5);
  EXPECT_EQ(looks(20000, 30000, 3000).at("camera").width, 320) << "the larger layer rests";
  EXPECT_EQ(looks(5000, 30000, 3000).at("camera").bitrateKbps, 0) << "counters and clock went back";
}

}  // namespace
}  // namespace kestrova::test
