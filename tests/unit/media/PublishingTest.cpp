#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MediaBench.h"
#include <algorithm>

namespace kestrova::test {
namespace {

using testing::ElementsAre;

class PublishingTest : public testing::Test {
protected:
  /// What is traced from here on, without the requests' own lines.
  std::vector<std::string> told(std::vector<std::string_view> wanted) {
    std::vector<std::string> lines;
    for (const auto& line : platform.traces.texts())
      if (std::find(wanted.begin(), wanted.end(), line) != wanted.end()) lines.push_back(line);
    return lines;
  }
  TestPlatform platform;
  MediaBench bench{platform};
};

TEST_F(PublishingTest, aWebcamAndAShareAreToldApartByTheirMarkAlone) {
  const auto webcam = bench.addProducer("webcam", false);
  const auto share = bench.addProducer("share", true);
  EXPECT_EQ(platform.run(bench.publishing->closeLocalVideo(bench.connection(), std::nullopt)),
            "webcam");
  EXPECT_TRUE(webcam->closed());
  EXPECT_FALSE(share->closed());
  EXPECT_THAT(bench.registry->producers(), ElementsAre(share));
  EXPECT_THROW(platform.run(bench.publishing->closeLocalVideo(bench.connection(), std::nullopt)),
               RoomClientFailure);
  EXPECT_EQ(platform.run(bench.publishing->closeLocalScreenShare(bench.connection(), std::nullopt)),
            "share");
  EXPECT_TRUE(share->closed());
}

TEST_F(PublishingTest, aShareIsDisposedOfBeforeItsEndIsTold) {
  struct Row {
    bool withRequest;
    bool refused;
  };
  for (const auto& row : {Row{true, false}, Row{true, true}, Row{false, false}}) {
    bench.addProducer("share", true);
    platform.traces.clear();
    platform.service->forgetRequests();
    if (row.refused)
      platform.service->refuse("closeProducer", 4000, "gone");
    else
      platform.service->answer("closeProducer", {});
    platform.run(bench.publishing->closeLocalScreenShare(
        row.withRequest ? std::optional(bench.connection()) : std::nullopt, std::nullopt));
    const std::string cause =
        "Error in disableScreenShare() ->  [ ErrorCode: 4000, Message: gone ] ";
    const char* failed = "Error encountered while disabling the screen share.";
    std::vector<std::string> expected{
        "ScreenShare Stream transmission stopped successfully", "Disposing Screenshare Track",
        "Screenshare track disposed successfully", "Emitting STREAM_DISABLED Event",
        "Screen share stream disabled successfully"};
    if (row.refused) expected.insert(expected.begin() + 2, {cause, failed});
    EXPECT_EQ(
        told({"ScreenShare Stream transmission stopped successfully", "Disposing Screenshare Track",
              cause, failed, "Screenshare track disposed successfully",
              "Emitting STREAM_DISABLED Event", "Screen share stream disabled successfully"}),
        expected);
    EXPECT_EQ(platform.traces.attribute("Emitting STREAM_DISABLED Event", "kind"), "share");
    EXPECT_EQ(platform.service->count("closeProducer"), row.withRequest ? 1 : 0);
  }
}

TEST_F(PublishingTest, aTrackThatIsSilencedMeanwhileStaysSilent) {
  bench.setUp();
  platform.service->withhold("produce");
  const auto track = std::make_shared<ScriptedAudioTrack>("mic");
  auto stream = std::make_shared<CustomRTCMediaStream>(CustomStreamFields{.audioTrack = track});
  const auto publishing =
      platform.start(bench.publishing->produceLocalAudio(stream, bench.connection(), std::nullopt));
  track->setEnabled(false);
  platform.service->answerLate("produce", ScriptedService::ok({{"id", "mic"}}));
  platform.pump();
  ASSERT_TRUE(publishing->has_value() && publishing->value());
  EXPECT_FALSE(track->isEnabled());
}

TEST_F(PublishingTest, aTransportThatGoesDuringAPublishLeavesNoProducer) {
  bench.setUp();
  platform.service->withhold("produce");
  auto stream = std::make_shared<CustomRTCMediaStream>(
      CustomStreamFields{.audioTrack = std::make_shared<ScriptedAudioTrack>("mic")});
  const auto publishing =
      platform.start(bench.publishing->produceLocalAudio(stream, bench.connection(), std::nullopt));
  bench.dispose();
  platform.service->answerLate("produce", ScriptedService::ok({{"id", "late"}}));
  platform.pump();
  ASSERT_TRUE(publishing->has_value());
  EXPECT_EQ(publishing->value(), nullptr);
  EXPECT_TRUE(bench.registry->producers().empty());
}

}  // namespace
}  // namespace kestrova::test
