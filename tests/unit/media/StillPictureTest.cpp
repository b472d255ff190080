#include <kestrova/media/KestrovaVideoProcessor.h>
#include <kestrova/signalling/RoomClient.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/ScriptedImaging.h>
#include <tests/support/TestMeeting.h>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* captureFailed = "Failed to capture image";

class StillPictureTest : public testing::Test {
protected:
  void join(bool webcam) {
    test.emplace(TestMeeting::joined(platform, {.webcamEnabled = webcam}));
    platform.pump();
  }
  Participant& me() { return *test->meeting->localParticipant(); }
  Participant::ImageCompletion keep() {
    return [this](const std::optional<std::string>& jpeg) {
      EXPECT_TRUE(MainQueue::shared().isCurrent());
      taken.push_back(jpeg.value_or("nothing"));
    };
  }
  static VideoFrame picture(int width, int rotation) {
    return {
        .buffer = std::make_shared<I420Buffer>(width, 2), .timestampUs = 1, .rotation = rotation};
  }
  TestPlatform platform;
  const std::shared_ptr<ScriptedImaging> imaging = std::make_shared<ScriptedImaging>();
  const std::shared_ptr<ScriptedCompositing> script = ScriptedCompositing::install(imaging);
  std::optional<TestMeeting> test;
  std::vector<std::string> taken;
};

TEST_F(StillPictureTest, itIsWhatOthersSeeHalfASecondLater) {
  join(true);
  struct Narrow final : KestrovaVideoProcessor {
    std::optional<VideoFrame> onFrameReceived(const VideoFrame&) override { return picture(6, 90); }
  };
  test->meeting->setVideoProcessor(std::make_shared<Narrow>());
  me().captureImage(480.5, std::nullopt, keep());
  platform.pump();
  EXPECT_EQ(platform.traces.attribute("Capturing image", "height"), "480.5");
  EXPECT_EQ(platform.traces.attribute("Capturing image", "width"), "0.0");
  platform.capture->deliver(picture(4, 0));
  platform.advance(499ms);
  EXPECT_THAT(taken, IsEmpty());
  platform.advance(1ms);
  EXPECT_THAT(taken, ElementsAre("YSBqcGVn"));
  EXPECT_THAT(imaging->asked,
              ElementsAre("render 6x2", "rotate 90", "resize 2x481", "jpeg 2x481 1.000000"));
  EXPECT_TRUE(platform.traces.has("Image captured successfully"));
}

TEST_F(StillPictureTest, capturesThatOverlapAllGetAPicture) {
  join(true);
  me().captureImage(1, 1, keep());
  platform.advance(400ms);
  me().captureImage(2, 2, keep());
  platform.capture->deliver(picture(4, 0));
  platform.advance(1s);
  EXPECT_THAT(taken, ElementsAre("YSBqcGVn", "YSBqcGVn"));
  imaging->asked.clear();
  me().captureImage(1, 1, keep());
  platform.advance(1s);
  EXPECT_EQ(taken.back(), "nothing") << "a picture from before is none";
}

TEST_F(StillPictureTest, aScreenGivesTheSizeThatNobodyAskedFor) {
  join(true);
  auto own = *Platform::current();
  own.mainScreenSize = [] { return std::pair(1920, 1080); };
  Platform::install(std::move(own));
  me().captureImage(std::nullopt, 640, keep());
  platform.capture->deliver(picture(4, 0));
  platform.advance(1s);
  EXPECT_THAT(imaging->asked, testing::Contains("resize 640x1080"));
}

TEST_F(StillPictureTest, whatFailsGivesNothing) {
  join(true);
  const auto capture = [&](std::optional<double> height, std::optional<double> width) {
    platform.traces.clear();
    me().captureImage(height, width, keep());
    platform.capture->deliver(picture(4, 0));
    platform.advance(1s);
    return std::exchange(taken, {});
  };
  for (const char* operation : {"render", "rotate", "resize", "jpeg"}) {
    imaging->fails = operation;
    EXPECT_THAT(capture(2, 2), ElementsAre("nothing")) << operation;
    EXPECT_TRUE(platform.traces.has(captureFailed)) << operation;
  }
  imaging->fails.clear();
  for (const double side : {0.0, -3.0, 1e300, std::numeric_limits<double>::quiet_NaN()})
    EXPECT_THAT(capture(side, 5), ElementsAre("nothing")) << side;
  EXPECT_THAT(capture(2, 2), ElementsAre("YSBqcGVn"));

  auto own = *Platform::current();
  own.imaging = nullptr;
  Platform::install(std::move(own));
  EXPECT_THAT(capture(2, 2), ElementsAre("nothing"));
  EXPECT_TRUE(platform.traces.has("Failed to capture image: CIAffineTransform filter unavailable"));
}

TEST_F(StillPictureTest, whileTheWebcamIsOffThereIsNone) {
  join(false);
  me().captureImage(1, 1, keep());
  platform.advance(1s);
  EXPECT_THAT(taken, IsEmpty()) << "refused";
  EXPECT_TRUE(
      platform.traces.has("Not able to capture the image, because participant's webcam is off."));
  EXPECT_FALSE(test->listener->has("onError"));

  const auto room = RoomClient::make({});
  room->imageCapturer(std::nullopt, std::nullopt, keep());
  platform.advance(1s);
  EXPECT_THAT(taken, ElementsAre("nothing"));
  EXPECT_TRUE(platform.traces.has(captureFailed));
}

TEST_F(StillPictureTest, othersAreTakenFromWhatComesOfThem) {
  join(true);
  const auto grace = test->addPeer("grace");
  grace->captureImage(1, 1, keep());
  EXPECT_TRUE(
      platform.traces.has("Not able to capture the image, because participant's webcam is off."));
  test->announce("c1", "grace", "video");
  const auto streams = grace->streams();
  ASSERT_EQ(streams.size(), 1u);
  const auto track =
      std::dynamic_pointer_cast<ScriptedVideoTrack>(streams.begin()->second->videoTrack());
  ASSERT_TRUE(track);
  grace->captureImage(std::nullopt, std::nullopt, keep());
  platform.capture->deliver(picture(4, 0));
  ASSERT_EQ(track->sinks.size(), 1u);
  (*track->sinks.begin())->onFrame(picture(8, 0));
  platform.advance(1s);
  EXPECT_THAT(taken, ElementsAre("YSBqcGVn"));
  EXPECT_THAT(imaging->asked, testing::Contains("render 8x2"));
  EXPECT_THAT(track->sinks, IsEmpty());
}

TEST_F(StillPictureTest, aMeetingThatIsLetGoOfMeanwhileStillAnswers) {
  join(true);
  me().captureImage(1, 1, keep());
  test.reset();
  platform.advance(5s);
  EXPECT_THAT(taken, ElementsAre("nothing"));
}

}  // namespace
}  // namespace kestrova::test
