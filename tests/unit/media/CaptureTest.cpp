#include <kestrova/media/MediaCapturer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

namespace kestrova::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr auto hangs = ScriptedCapture::Behaviour::hangs;
constexpr auto size = CustomVideoTrackConfig::h360p_w640p;

class CaptureTest : public testing::Test {
protected:
  std::shared_ptr<RTCVideoTrack> startCamera(CameraPosition position = CameraPosition::front) {
    return platform.run(capturer->createVideoTrack(size, position));
  }
  void listen() {
    capturer->onCaptureFailed([this](MediaKind kind, const auto&, const std::string& error) {
      failures.push_back((kind == MediaKind::video ? "video " : "audio ") + error);
    });
  }
  TestPlatform platform;
  const std::shared_ptr<MediaCapturer> capturer = MediaCapturer::make();
  std::vector<std::string> failures;
};

// ---- Captures that end by themselves -----------------------------------------------------------

TEST_F(CaptureTest, aCaptureThatEndsByItselfIsToldOnceAndMayBeginAgain) {
  listen();
  const auto camera = startCamera();
  const auto microphone = capturer->createAudioTrack({});
  platform.capture->failCameras("unplugged");
  platform.capture->failMicrophones("server gone");
  platform.pump();
  EXPECT_THAT(failures, ElementsAre("video unplugged", "audio server gone"));
  EXPECT_FALSE(camera->isEnabled() || microphone->isEnabled());
  EXPECT_FALSE(capturer->isCameraRunning());

  EXPECT_NE(startCamera(), nullptr);
  EXPECT_NE(capturer->createAudioTrack({}), nullptr);
  capturer->stop();
  platform.capture->failCameras("unplugged");
  platform.capture->failMicrophones("server gone");
  platform.pump();
  EXPECT_EQ(failures.size(), 2u) << "what was stopped cannot fail";
}

TEST_F(CaptureTest, aFailureOfAnEarlierCaptureLeavesTheNextAlone) {
  listen();
  startCamera();
  platform.capture->failCameras("unplugged");
  // Already on its way when the failure is looked at.
  const auto next = platform.start(capturer->createVideoTrack(size, CameraPosition::back));
  ASSERT_TRUE(next->has_value());
  EXPECT_TRUE(next->value() && next->value()->isEnabled());
  EXPECT_TRUE(capturer->isCameraRunning());

  const auto first = capturer->createAudioTrack({});
  platform.capture->failMicrophones("server gone");
  const auto second = capturer->createAudioTrack({});
  platform.pump();
  EXPECT_TRUE(second->isEnabled() && platform.capture->microphoneRunning);
  EXPECT_THAT(failures, testing::Not(testing::Contains("audio server gone")));
}

TEST_F(CaptureTest, aHandlerMayStartAgainAndAFailureOutlivesTheCapturer) {
  auto own = MediaCapturer::make();
  std::shared_ptr<RTCAudioTrack> again;
  own->onCaptureFailed([&, weak = std::weak_ptr(own)](MediaKind, const auto&, const std::string&) {
    if (const auto held = weak.lock()) again = held->createAudioTrack({});
  });
  own->createAudioTrack({});
  platform.capture->failMicrophones("server gone");
  platform.pump();
  ASSERT_TRUE(again && again->isEnabled());
  platform.capture->failMicrophones("server gone");
  again.reset();
  own.reset();
  platform.pump();
  EXPECT_EQ(again, nullptr) << "nobody was left to start it";
}

// ---- Switching ---------------------------------------------------------------------------------

TEST_F(CaptureTest, aSwitchNeverTurnsACameraOn) {
  EXPECT_EQ(platform.run(capturer->switchCamera()), CameraPosition::back);
  EXPECT_THAT(platform.journal.only({"camera"}), IsEmpty());

  startCamera();
  platform.capture->cameraStart = hangs;
  const auto switching = platform.start(capturer->switchCamera());
  capturer->stop();
  platform.capture->finishHanging();
  platform.pump();
  ASSERT_TRUE(switching->has_value());
  EXPECT_EQ(switching->value(), std::nullopt);
  EXPECT_FALSE(capturer->isCameraRunning()) << "the meeting ended meanwhile";
}

TEST_F(CaptureTest, aCameraThatCannotBeSwitchedToLeavesTheOneBefore) {
  listen();
  const auto track = startCamera();
  platform.capture->failsToStart = "cam-back";
  EXPECT_EQ(platform.run(capturer->switchCamera()), std::nullopt);
  EXPECT_TRUE(capturer->isCameraRunning() && track->isEnabled());
  EXPECT_THAT(failures, IsEmpty());
  platform.capture->failsToStart.clear();
  EXPECT_EQ(platform.run(capturer->switchCamera()), CameraPosition::back);
  platform.capture->cameraStart = ScriptedCapture::Behaviour::fails;
  EXPECT_EQ(platform.run(capturer->switchCamera()), std::nullopt);
  EXPECT_THAT(failures, ElementsAre("video no camera could be opened"));
  EXPECT_FALSE(track->isEnabled());
}

// ---- Tracks of the application's own -----------------------------------------------------------

class CustomTrackTest : public testing::Test {
protected:
  TestPlatform platform;
};

TEST_F(CustomTrackTest, theLastReferenceEndsTheCapture) {
  for (const bool dispose : {true, false}) {
    platform.journal.clear();
    auto camera =
        platform.run(Kestrova::createCameraVideoTrack({.facingMode = CameraPosition::back}));
    auto microphone = Kestrova::createAudioTrack();
    EXPECT_TRUE(platform.capture->microphoneRunning);
    if (dispose) {
      MediaCapturer::disposeCustomTrack(camera);
      MediaCapturer::disposeCustomTrack(microphone);
    }
    camera.reset();
    microphone.reset();
    platform.pump();
    EXPECT_THAT(platform.journal.only({"camera"}),
                ElementsAre("camera.start cam-back 1920x1080@30", "camera.stop"));
    EXPECT_FALSE(platform.capture->microphoneRunning);
  }
}

TEST_F(CustomTrackTest, aMicrophoneTrackIsMadeAsConfigured) {
  const auto stream =
      Kestrova::createAudioTrack({.noiseConfig = NoiseConfig{.echoCancellation = true}});
  EXPECT_EQ(platform.factory->audioConstraints.at("googEchoCancellation"), "true");
  EXPECT_EQ(stream->fields().audioEncoderConfig, CustomAudioTrackConfig::speech_standard);
  EXPECT_EQ(platform.traces.attribute("Creating Custom Audio Track", "encoderConfig"),
            "speech_standard");
  EXPECT_TRUE(platform.traces.has("Custom Audio Track created successfully"));
  Kestrova::createAudioTrack();
  EXPECT_EQ(platform.traces.attribute("Creating Custom Audio Track", "noiseConfig"),
            "Noise Config Not Provided");
}

TEST_F(CustomTrackTest, devicesThatGiveNoTrackAreFailures) {
  const auto errorOf = [](auto call) -> std::optional<RoomClientError> {
    try {
      call();
    } catch (const RoomClientFailure& failure) {
      return failure.error();
    }
    return std::nullopt;
  };
  platform.capture->devices.clear();
  platform.capture->hasMicrophone = false;
  EXPECT_EQ(errorOf([&] { platform.run(Kestrova::createCameraVideoTrack()); }),
            RoomClientError::couldNotCreateVideoProducer);
  EXPECT_EQ(errorOf([&] { Kestrova::createAudioTrack(); }),
            RoomClientError::couldNotCreateAudioProducer);
  EXPECT_EQ(platform.traces.attribute("Error while creating custom video track", "error"),
            "Device could not create video track!");
  EXPECT_EQ(platform.traces.attribute("Error while creating custom audio track", "error"),
            "Device could not create audio track!");
}

TEST_F(CustomTrackTest, aMeetingThatIsMadeWithoutUseForTheTrackEndsItsCamera) {
  Kestrova::config("token");
  auto camera = platform.run(Kestrova::createCameraVideoTrack());
  const auto meeting = Kestrova::initMeeting({.meetingId = "room",
                                              .webcamEnabled = true,
                                              .customCameraVideoStream = camera,
                                              .mode = Mode::VIEWER});
  platform.pump();
  EXPECT_EQ(platform.journal.count("camera.stop"), 1);
  EXPECT_EQ(camera->videoTrack(), nullptr);
}

TEST_F(CustomTrackTest, permissionsAreToldWhenTheyAreLackingOnly) {
  struct Delegate final : AuthorisationDelegate {
    void handlePermission() override { ++calls; }
    int calls = 0;
  };
  using enum AuthorisationStatus;
  const auto delegate = std::make_shared<Delegate>();
  const auto earlier = std::make_shared<Delegate>();
  const auto other = std::make_shared<Delegate>();
  Kestrova::addAuthorisationDelegate(earlier);
  Kestrova::setAuthorisationDelegate(delegate);
  Kestrova::addAuthorisationDelegate(std::make_shared<Delegate>());  // goes at once
  Kestrova::addAuthorisationDelegate(other);
  for (const auto status : {authorized, notDetermined, denied, restricted}) {
    SCOPED_TRACE(static_cast<int>(status));
    platform.traces.clear();
    delegate->calls = 0;
    platform.capture->cameraStatus = platform.capture->microphoneStatus = status;
    Kestrova::getVideoPermission();
    Kestrova::getAudioPermission();
    EXPECT_EQ(delegate->calls, status == denied || status == restricted ? 2 : 0);
    const std::vector<std::string> asked{"Requesting permission for camera",
                                         "Requesting permission for microphone"};
    EXPECT_EQ(platform.traces.texts(),
              status == notDetermined ? asked : std::vector<std::string>());
  }
  EXPECT_EQ(other->calls, 4);
  EXPECT_EQ(earlier->calls, 0);
  Kestrova::removeAuthorisationDelegate(other);
  Kestrova::getAudioPermission();
  EXPECT_EQ(other->calls, 4);
}

}  // namespace
}  // namespace kestrova::test
