#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MediaBench.h"

namespace kestrova::test {
namespace {

using testing::ElementsAre;

class PublishingTest : public testing::Test {
protected:
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

}  // namespace
}  // namespace kestrova::test
