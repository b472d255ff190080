#include <kestrova/media/KestrovaVideoProcessor.h>
#include <kestrova/media/MediaCapturer.h>
#include <kestrova/platform/WrappedBuffers.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

#include <functional>
#include <stdexcept>

namespace kestrova::test {
namespace {

/// Does what the test says with each picture.
struct Processor final : KestrovaVideoProcessor {
  using Work = std::function<std::optional<VideoFrame>(const VideoFrame&)>;
  explicit Processor(Work asked) : work(std::move(asked)) {}
  std::optional<VideoFrame> onFrameReceived(const VideoFrame& frame) override {
    ++calls;
    return work(frame);
  }
  const Work work;
  int calls = 0;
};

std::shared_ptr<Processor> processorThat(Processor::Work work) {
  return std::make_shared<Processor>(std::move(work));
}

VideoFrame pictureAt(std::int64_t time) {
  return {.buffer = std::make_shared<I420Buffer>(4, 2), .timestampUs = time, .rotation = 180};
}

class FramePathTest : public testing::Test {
protected:
  std::shared_ptr<RTCVideoTrack> startCamera() {
    return platform.run(
        capturer->createVideoTrack(CustomVideoTrackConfig::h360p_w640p, CameraPosition::front));
  }
  VideoFrame send(const VideoFrame& frame) {
    const int before = platform.factory->newestVideoSource->frames;
    platform.capture->deliver(frame);
    EXPECT_EQ(platform.factory->newestVideoSource->frames, before + 1);
    return platform.factory->newestVideoSource->last;
  }
  TestPlatform platform;
  const std::shared_ptr<MediaCapturer> capturer = MediaCapturer::make();
};

TEST_F(FramePathTest, aProcessorsPictureGoesInPlaceOfTheCamerasAndAFailureNever) {
  startCamera();
  const auto camera = pictureAt(7);
  EXPECT_EQ(send(camera).buffer, camera.buffer);

  const auto own = pictureAt(9);
  capturer->setVideoProcessor(processorThat([&](const VideoFrame&) { return own; }));
  EXPECT_EQ(send(camera).buffer, own.buffer);
  EXPECT_EQ(platform.factory->newestVideoSource->last.timestampUs, 9);
  capturer->setVideoProcessor(
      processorThat([&](const VideoFrame&) { return VideoFrame{.buffer = own.buffer}; }));
  EXPECT_EQ(send(camera).timestampUs, 7) << "a picture without a time has the camera's";

  const I420View torn{.y = nullptr, .width = 4, .height = 2};
  const Processor::Work failing[] = {
      [](const VideoFrame&) { return std::nullopt; },
      [](const VideoFrame&) { return VideoFrame(); },
      [](const VideoFrame&) { return VideoFrame{.buffer = std::make_shared<I420Buffer>(0, 0)}; },
      [&](const VideoFrame&) {
        return VideoFrame{.buffer = std::make_shared<WrappedI420Buffer>(torn, [] {})};
      },
      [](const VideoFrame&) -> std::optional<VideoFrame> { throw std::runtime_error("no idea"); },
      [](const VideoFrame&) -> std::optional<VideoFrame> { throw 5; },
  };
  for (const auto& work : failing) {
    const auto processor = processorThat(work);
    capturer->setVideoProcessor(processor);
    const auto sent = send(camera);
    EXPECT_EQ(processor->calls, 1);
    EXPECT_EQ(sent.buffer, camera.buffer);
    EXPECT_EQ(sent.rotation, 180);
  }
  capturer->setVideoProcessor(nullptr);
  EXPECT_EQ(send(camera).buffer, camera.buffer);
}

TEST_F(FramePathTest, aProcessorMayReplaceItselfAndGoesWithTheTrack) {
  auto track = startCamera();
  auto second = processorThat([](const VideoFrame&) { return pictureAt(2); });
  capturer->setVideoProcessor(processorThat([&](const VideoFrame&) {
    capturer->setVideoProcessor(second);  // no lock is held
    return pictureAt(1);
  }));
  EXPECT_EQ(send(pictureAt(7)).timestampUs, 1);
  EXPECT_EQ(send(pictureAt(7)).timestampUs, 2);

  const std::weak_ptr<Processor> gone = second;
  second.reset();
  capturer->removeVideoTrack(std::make_shared<ScriptedVideoTrack>("another"));
  EXPECT_FALSE(gone.expired());
  capturer->removeVideoTrack(track);
  EXPECT_TRUE(gone.expired());
}

// ---- Within a meeting --------------------------------------------------------------------------

class MeetingProcessorTest : public testing::Test {
protected:
  /// Whose picture is sent in place of the next one of a camera that runs; 0: that itself.
  int shown(TestMeeting& test) {
    EXPECT_EQ(test.meeting->localParticipant()->streams().size(), 1u);
    last = 0;
    platform.capture->deliver(pictureAt(7));
    return last;
  }
  std::shared_ptr<Processor> numbered(int number) {
    return processorThat([this, number](const VideoFrame&) {
      last = number;
      return pictureAt(8);
    });
  }
  int last = 0;
  TestPlatform platform;
};

TEST_F(MeetingProcessorTest, itIsRefusedOutsideOfAMeeting) {
  TestMeeting test(platform);
  test.meeting->setVideoProcessor(numbered(1));
  platform.pump();
  EXPECT_TRUE(test.listener->has("onError")) << "not joined yet";
}

TEST_F(MeetingProcessorTest, itOutlastsWhatTheLibraryDoesAndNotTheCamera) {
  auto test = TestMeeting::joined(platform, {.webcamEnabled = false});
  auto& meeting = *test.meeting;
  meeting.setVideoProcessor(numbered(1));
  meeting.enableWebcam();
  platform.pump();
  EXPECT_EQ(shown(test), 1) << "set before the camera is on: no picture goes past it";
  meeting.disableWebcam();
  meeting.enableWebcam();
  platform.pump();
  meeting.enableWebcam();
  platform.pump();
  EXPECT_EQ(shown(test), 0);

  meeting.setVideoProcessor(numbered(2));
  EXPECT_EQ(shown(test), 2);
  meeting.changeMode(Mode::RECV_ONLY);
  platform.pump();
  EXPECT_EQ(platform.journal.count("camera.stop"), 2);
  meeting.changeMode(Mode::SEND_AND_RECV);
  platform.pump();
  EXPECT_EQ(shown(test), 2) << "nobody has turned the camera off";

  meeting.disableWebcam();
  meeting.setVideoProcessor(numbered(3));
  platform.pump();
  meeting.enableWebcam();
  platform.pump();
  EXPECT_EQ(shown(test), 3) << "meant for the next time";
  meeting.setVideoProcessor(nullptr);
  EXPECT_EQ(shown(test), 0);
}

}  // namespace
}  // namespace kestrova::test
