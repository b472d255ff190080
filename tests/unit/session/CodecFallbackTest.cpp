#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

namespace kestrova::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// What is published as H264 until somebody can't decode it.
class CodecFallbackTest : public testing::Test {
protected:
  ScriptedService& service() { return *platform.service; }
  void join(bool webcamEnabled, bool codecSwitchEnabled = true) {
    custom = std::make_shared<CustomRTCMediaStream>(
        CustomStreamFields{.videoTrack = platform.factory->videoTrack(nullptr, "own"),
                           .multiStream = false,
                           .videoCodec = VideoCodec::H264});
    test.emplace(TestMeeting::joined(platform, {.webcamEnabled = webcamEnabled,
                                                .customCameraVideoStream = custom,
                                                .codecSwitchEnabled = codecSwitchEnabled}));
    test->listener->take();
  }
  /// VP8 goes without saying.
  std::string codecOf(std::size_t publication) {
    return text(parseDictionary(platform.media->published.at(publication).codec), "mimeType",
                "video/VP8");
  }
  void complain(const char* codec, const char* who = "bob") {
    test->notify("unsupportedCodecAdded",
                 {{"codec", codec}, {"kind", "video"}, {"consumerPeerId", who}});
  }
  TestPlatform platform;
  std::shared_ptr<CustomRTCMediaStream> custom;
  std::optional<TestMeeting> test;
};

TEST_F(CodecFallbackTest, aRunningPublicationIsReplaced) {
  join(true);
  test->addPeer("bob");
  test->listener->take();
  EXPECT_EQ(codecOf(0), "video/H264");
  complain("video/h264");
  ASSERT_EQ(platform.media->published.size(), 2u);
  EXPECT_EQ(codecOf(1), "video/VP8");
  EXPECT_EQ(service().count("closeProducer"), 1);
  EXPECT_EQ(platform.journal.count("camera.start"), 0) << "the application's pictures go on";
  EXPECT_THAT(test->listener->take(), ElementsAre("onCodecChanged H264 to VP8"));
  EXPECT_EQ(platform.traces.attribute("Change webcam due to unsupported codec", "reason"),
            "Due to Participant: bob (bob) doesn't support H264 Codec.");
  EXPECT_EQ(test->meeting->localParticipant()->streams().size(), 1u);
  complain("H264");
  EXPECT_EQ(platform.media->published.size(), 2u) << "it is VP8 already";
}

TEST_F(CodecFallbackTest, withTheWebcamOffTheNextPublicationFallsBack) {
  join(true);
  test->meeting->disableWebcam();
  platform.pump();
  complain("H264", "stranger");
  EXPECT_EQ(platform.media->published.size(), 1u);
  custom->setVideoCodec(VideoCodec::H264);
  test->meeting->enableWebcam(custom);
  platform.pump();
  EXPECT_EQ(codecOf(1), "video/VP8");
  EXPECT_EQ(platform.traces.attribute("Fallback to VP8 Codec", "reason"),
            "Due to one of the participant doesn't support H264 Codec.");
  EXPECT_THAT(test->listener->take(), ElementsAre("onCodecChanged H264 to VP8"));
}

TEST_F(CodecFallbackTest, twoInARowMakeOneSwitch) {
  join(true);
  service().withhold("closeProducer");
  complain("H264");
  complain("VP9", "eve");
  EXPECT_EQ(platform.media->published.size(), 1u);
  while (service().answerLate("closeProducer", ScriptedService::ok())) platform.pump();
  EXPECT_EQ(platform.media->published.size(), 2u);
  EXPECT_THAT(test->listener->take(), ElementsAre("onCodecChanged H264 to VP8"));
  test->meeting->disableWebcam();
  platform.pump();
  service().answerLate("closeProducer", ScriptedService::ok());
  platform.pump();
  EXPECT_THAT(test->meeting->localParticipant()->streams(), IsEmpty()) << "the toggle is free";
}

TEST_F(CodecFallbackTest, whoSwitchesOffMeanwhileIsNotSeenAgain) {
  join(true);
  service().withhold("closeProducer");
  complain("H264");
  test->meeting->disableWebcam();
  EXPECT_TRUE(platform.traces.has("Error in disableWebcam() -> Webcam disabling in progress."));
  while (service().answerLate("closeProducer", ScriptedService::ok())) platform.pump();
  EXPECT_EQ(platform.media->published.size(), 1u);
  EXPECT_THAT(test->meeting->localParticipant()->streams(), IsEmpty());
  custom->setVideoCodec(VideoCodec::H264);
  test->meeting->enableWebcam(custom);
  platform.pump();
  EXPECT_EQ(codecOf(1), "video/VP8") << "the codec is remembered, and the toggle is free";
}

TEST_F(CodecFallbackTest, theAnswerToTheJoinCountsToo) {
  service().answer("join", {{"unsupportedCodecs", List{"video/H264", "video/VP9"}}});
  join(true);
  EXPECT_EQ(codecOf(0), "video/VP8");
}

TEST_F(CodecFallbackTest, withoutPermissionNothingChanges) {
  service().answer("join", {{"unsupportedCodecs", List{"video/H264"}}});
  join(true, false);
  complain("H264");
  EXPECT_EQ(platform.media->published.size(), 1u);
  EXPECT_EQ(codecOf(0), "video/H264");
  EXPECT_THAT(test->listener->take(), IsEmpty());
}

TEST_F(CodecFallbackTest, leavingInTheMiddleLeavesTheCameraOff) {
  join(true);
  service().withhold("closeProducer");
  complain("H264");
  test->meeting->leave();
  platform.pump();
  platform.advance(std::chrono::seconds(30));
  EXPECT_EQ(platform.media->published.size(), 1u);
  EXPECT_FALSE(test->listener->has("onCodecChanged"));
}

}  // namespace
}  // namespace kestrova::test
