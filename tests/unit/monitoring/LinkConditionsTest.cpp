#include <kestrova/monitoring/LinkConditions.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestPlatform.h>

#include "EngineStats.h"

namespace kestrova::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Lines = std::vector<std::string>;

class LinkConditionsTest : public testing::Test {
protected:
  /// One look at new reports: so many round trips, which took so long together.
  Lines look(double seconds, int measurements, const char* reason) {
    _total += seconds;
    _measurements += measurements;
    return judge(reason);
  }
  /// One without a new report.
  Lines judge(const char* reason) {
    const List raw{
        sent("video", 1, {{"qualityLimitationReason", reason}}),
        reported("video", 1,
                 {{"totalRoundTripTime", _total}, {"roundTripTimeMeasurements", _measurements}})};
    Lines lines;
    for (const auto& news : conditions.observeStatsOfSendTransport(raw)) {
      news.trace();
      lines.push_back(std::string(text(news.type)) + " " + std::string(text(news.state)));
    }
    return lines;
  }
  Lines receive(const Dictionary& more, double now, const char* kind = "video") {
    const List entries{with({{"trackId", "t"}, {"peerId", "bob"}, {"kind", kind}}, more)};
    Lines lines;
    for (const auto& news : conditions.observeStatsOfRecvTransport(entries, now))
      lines.push_back(std::string(text(news.state)) + " " + news.peerId + " " + news.trackId);
    return lines;
  }

  TestPlatform platform;
  LinkConditions conditions;

private:
  double _total = 0;
  double _measurements = 0;
};

TEST_F(LinkConditionsTest, congestionBeginsAbove50AndEndsBelow30) {
  // Binary fractions, so that a difference of exactly 50 ms is one.
  EXPECT_THAT(look(0.5, 1, "bandwidth"), ElementsAre("BANDWIDTH DETECTED"))
      << "the first mean is its own average";
  EXPECT_THAT(look(2.75, 5, "bandwidth"), IsEmpty()) << "550 over 500";
  EXPECT_THAT(look(0.5625, 1, "none"), ElementsAre("BANDWIDTH RESOLVED"))
      << "562.5 over 505, but not held back";
  EXPECT_THAT(look(0.625, 1, "bandwidth"), ElementsAre("CONGESTION DETECTED", "BANDWIDTH DETECTED"))
      << "625 over 510.75";
  EXPECT_THAT(look(0.5625, 1, "none"), ElementsAre("BANDWIDTH RESOLVED")) << "40 over 522";
  EXPECT_THAT(look(0.546875, 1, "bandwidth"),
              ElementsAre("CONGESTION RESOLVED", "BANDWIDTH DETECTED"))
      << "21 over 526: the round trip alone ends it";
  EXPECT_TRUE(
      platform.traces.has("Network Congestion detected, the network is bandwidth limited "
                          "and the round trip time is increasing."));
}

TEST_F(LinkConditionsTest, withoutANewReportNothingIsJudged) {
  EXPECT_THAT(look(0.125, 1, "none"), IsEmpty());
  EXPECT_THAT(judge("cpu"), IsEmpty());
  EXPECT_THAT(look(0.125, 1, "cpu"), ElementsAre("CPU DETECTED"));
  EXPECT_THAT(judge("none"), IsEmpty());
  EXPECT_THAT(look(0.125, 1, "none"), ElementsAre("CPU RESOLVED"));
  EXPECT_THAT(look(-0.125, 1, "cpu"), IsEmpty()) << "totals that run backwards are no report";
  const List odd{Dictionary{{"type", "remote-inbound-rtp"}, {"totalRoundTripTime", "x"}}, 4,
                 Dictionary{{"type", "outbound-rtp"}, {"qualityLimitationReason", 3}}};
  EXPECT_THAT(conditions.observeStatsOfSendTransport(odd), IsEmpty());
}

TEST_F(LinkConditionsTest, aFreezeIsOverFiveSecondsAfterTheLast) {
  const auto frozen = [&](int count, double now) {
    return receive({{"freezeCount", count}, {"bitrate", 100.0}}, now);
  };
  EXPECT_THAT(frozen(3, 0), IsEmpty()) << "what was before is not ours";
  EXPECT_THAT(frozen(4, 2000), ElementsAre("FREEZE_DETECTED bob t"));
  EXPECT_THAT(frozen(4, 7000), IsEmpty()) << "exactly 5 s";
  EXPECT_THAT(frozen(5, 8000), ElementsAre("FREEZE_DETECTED bob t")) << "it begins anew";
  EXPECT_THAT(frozen(5, 13001), ElementsAre("FREEZE_RESOLVED bob t"));
  EXPECT_THAT(frozen(5, 30000), IsEmpty()) << "once";
  EXPECT_THAT(frozen(1, 31000), IsEmpty()) << "the count starts over";
  EXPECT_THAT(frozen(2, 32000), ElementsAre("FREEZE_DETECTED bob t"));
  EXPECT_THAT(receive({{"freezeCount", "six"}, {"bitrate", 1.0}}, 33000), IsEmpty());
}

TEST_F(LinkConditionsTest, aStreamIsStuckWhenLooksFarApartFindNothing) {
  const Dictionary silent{{"bitrate", 0.0}};
  EXPECT_THAT(receive(silent, 0), IsEmpty());
  EXPECT_THAT(receive(silent, 2000), IsEmpty());
  EXPECT_THAT(receive(silent, 7000), IsEmpty()) << "the mark of 2000 is exactly 5 s old";
  EXPECT_THAT(receive({}, 12001), ElementsAre("STUCK bob t")) << "no number is no bitrate";
  EXPECT_THAT(receive(silent, 12500), ElementsAre("STUCK bob t")) << "again, until it flows";
  EXPECT_THAT(receive({{"bitrate", 1.0}}, 13000), IsEmpty());
  EXPECT_THAT(receive(silent, 30000), IsEmpty());
  for (const char* kind : {"audio", "shareAudio"}) {
    EXPECT_THAT(receive(silent, 40000, kind), IsEmpty());
    EXPECT_THAT(receive(silent, 60000, kind), IsEmpty());
  }
  EXPECT_THAT(receive(silent, 60000, "share"), ElementsAre("STUCK bob t"));
}

}  // namespace
}  // namespace kestrova::test
