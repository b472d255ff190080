#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

#include <set>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class TogglesTest : public testing::Test {
protected:
  ScriptedService& service() { return *platform.service; }
  std::shared_ptr<Participant> me() { return test->meeting->localParticipant(); }
  void join(InitMeetingOptions options = {}) {
    test.emplace(TestMeeting::joined(platform, std::move(options)));
    test->listener->take();
    test->localListener->take();
    service().forgetRequests();
  }
  TestPlatform platform;
  std::optional<TestMeeting> test;
};

TEST_F(TogglesTest, microphoneAndCameraGoOnAndOff) {
  join();
  test->meeting->unmuteMic();
  test->meeting->enableWebcam();
  platform.pump();
  EXPECT_EQ(me()->streams().size(), 2u);
  EXPECT_TRUE(platform.capture->microphoneRunning);
  test->meeting->muteMic();
  test->meeting->disableWebcam();
  platform.pump();
  EXPECT_THAT(me()->streams(), IsEmpty());
  EXPECT_FALSE(platform.capture->microphoneRunning);
  EXPECT_EQ(service().count("closeProducer"), 2);
  EXPECT_EQ(platform.journal.count("camera.stop"), 1);
  EXPECT_FALSE(test->listener->has("onError"));
}

TEST_F(TogglesTest, aSecondToggleIsRefusedByTheStateFirstAndThenByTheOneUnderWay) {
  join();
  service().withhold("produce");
  test->meeting->enableWebcam();
  test->meeting->enableWebcam();
  test->meeting->unmuteMic();
  test->meeting->unmuteMic();
  test->meeting->disableWebcam();
  test->meeting->muteMic();
  platform.pump();
  for (const char* line : {"Error in enableWebcam() -> Webcam enabling is in progress.",
                           "Error in unmuteMic() -> Microphone enabling is in progress.",
                           "Error in disableWebcam() -> Webcam is already disabled.",
                           "Error in muteMic() -> Microphone is already disabled."})
    EXPECT_EQ(platform.traces.count(line), 1) << line;
  while (service().answerLate("produce", ScriptedService::ok({{"id", "p"}}))) platform.pump();
  test->meeting->enableWebcam();
  EXPECT_EQ(platform.traces.count("Error in enableWebcam() -> Webcam is already enabled."), 1);
  test->meeting->disableWebcam();
  test->meeting->disableWebcam();
  EXPECT_EQ(platform.traces.count("Error in disableWebcam() -> Webcam disabling in progress."), 1);
  EXPECT_FALSE(test->listener->has("onError"));
}

TEST_F(TogglesTest, aToggleThatFailsCanBeTriedAgain) {
  join();
  platform.capture->cameraStart = ScriptedCapture::Behaviour::fails;
  platform.capture->hasMicrophone = false;
  test->meeting->enableWebcam();
  test->meeting->unmuteMic();
  platform.pump();
  EXPECT_TRUE(test->listener->has("onError 3053 ERROR_VIDEO_TRACK_CREATION_FAILED"));
  EXPECT_TRUE(test->listener->has("onError 3034 ERROR_MICROPHONE_ACCESS_UNAVAILABLE"));
  std::set<std::string> causes;
  for (const auto& error : test->listener->errors) causes.insert(error.cause());
  EXPECT_EQ(causes, (std::set<std::string>{"the device is busy", "there is no microphone"}));
  platform.capture->cameraStart = ScriptedCapture::Behaviour::works;
  platform.capture->hasMicrophone = true;
  test->meeting->enableWebcam();
  test->meeting->unmuteMic();
  platform.pump();
  EXPECT_EQ(me()->streams().size(), 2u);
}

TEST_F(TogglesTest, theGuardComesFirst) {
  TestMeeting early(platform);
  early.meeting->muteMic();
  early.meeting->changeMode(Mode::VIEWER);
  early.meeting->pauseAllStreams();
  early.meeting->switchTo("elsewhere");
  platform.pump();
  EXPECT_EQ(early.listener->count("onError 3035"), 4);
  EXPECT_EQ(early.listener->errors.front().message(),
            "You must join the meeting before calling the muteMic() method.");
  join();
  test->socket().drop();
  platform.pump();
  test->meeting->enableWebcam();
  platform.pump();
  EXPECT_TRUE(test->listener->has("onError 3065 ERROR_MEETING_RECONNECTING"));
}

TEST_F(TogglesTest, aCameraThatIsOffIsChosenForTheNextTime) {
  join();
  test->meeting->switchWebcam();
  platform.pump();
  EXPECT_EQ(platform.journal.count("camera.start"), 0);
  test->meeting->enableWebcam();
  platform.pump();
  EXPECT_EQ(platform.journal.count("camera.start cam-back"), 1);
  test->meeting->switchWebcam();
  test->meeting->switchWebcam();
  test->meeting->switchWebcam();
  platform.pump();
  EXPECT_EQ(platform.journal.count("camera.start cam-front"), 2) << "one after the other";
  test->meeting->disableWebcam();
  test->meeting->switchWebcam();
  platform.pump();
  test->meeting->enableWebcam();
  platform.pump();
  EXPECT_EQ(platform.journal.count("camera.start cam-back"), 3);

  platform.capture->devices.erase(platform.capture->devices.begin());
  test->meeting->switchWebcam();
  platform.pump();
  EXPECT_TRUE(platform.traces.has("There is no other camera to switch to: Front Camera"));
  EXPECT_EQ(me()->streams().size(), 1u);
  EXPECT_EQ(platform.journal.count("camera.start"), platform.journal.count("camera.stop") + 1);
}

TEST_F(TogglesTest, othersMayAskAndMaySwitchOff) {
  join();
  test->notify("enableMic", {{"peerId", "me"}, {"byPeerId", "bob"}});
  test->notify("enableWebcam", {{"peerId", "me"}});
  EXPECT_THAT(test->listener->take(),
              ElementsAre("onMicRequested bob", "onWebcamRequested nobody"));
  EXPECT_THAT(me()->streams(), IsEmpty());
  for (const auto& accept : test->listener->accept) accept();
  platform.pump();
  EXPECT_EQ(me()->streams().size(), 2u);
  test->notify("disableMic", {{"peerId", "me"}});
  test->notify("disableWebcam", {{"peerId", "me"}});
  EXPECT_THAT(me()->streams(), IsEmpty());
  const auto accept = test->listener->accept.front();
  test->meeting.reset();
  accept();
  platform.pump();
}

TEST_F(TogglesTest, aRequestIsAcceptedWithADeviceOrWithTheApplicationsOwnTrack) {
  const auto own = std::make_shared<CustomRTCMediaStream>(
      CustomStreamFields{.videoTrack = std::make_shared<ScriptedVideoTrack>("own"),
                         .audioTrack = std::make_shared<ScriptedAudioTrack>("own")});
  join();
  test->notify("enableMic", {{"peerId", "me"}});
  test->notify("enableWebcam", {{"peerId", "me"}});
  const auto accept = test->listener->accept;
  for (const auto& each : accept) each(own);
  platform.pump();
  ASSERT_EQ(me()->streams().size(), 2u);
  for (const auto& [id, published] : me()->streams()) EXPECT_EQ(published->track()->id(), "own");
  for (const auto& each : accept) each();
  platform.pump();
  EXPECT_EQ(platform.journal.count("camera.start"), 0) << "on already";
  EXPECT_FALSE(platform.capture->microphoneRunning);

  test->meeting->muteMic();
  platform.pump();
  const MeetingEventListener::Action plain = accept.front();
  plain();
  platform.pump();
  EXPECT_TRUE(platform.capture->microphoneRunning);
  test->meeting.reset();
  accept.front()(own);
  platform.pump();
}

TEST_F(TogglesTest, anAcceptanceIsMadeOfAnyFunction) {
  std::vector<std::string> calls;
  const auto note = [&](const char* what) { calls.emplace_back(what); };
  const std::function<void()> plain = [&] { note("plain"); };
  const auto stream = std::make_shared<CustomRTCMediaStream>(CustomStreamFields{});
  const AcceptMediaRequest all[] = {
      plain, [&] { note("nothing"); },
      [&](const AcceptMediaRequest::Stream& given) { note(given == stream ? "stream" : "null"); },
      std::function<void()>(), AcceptMediaRequest()};
  for (auto accept : all) {
    accept();
    accept(stream);
  }
  EXPECT_THAT(calls, ElementsAre("plain", "plain", "nothing", "nothing", "null", "stream"));
}

TEST_F(TogglesTest, aTrackThatWasDisposedOfIsReportedAndTheDeviceTakesItsPlace) {
  join();
  const auto camera = std::make_shared<CustomRTCMediaStream>(
      CustomStreamFields{.videoTrack = std::make_shared<ScriptedVideoTrack>("own")});
  const auto microphone = std::make_shared<CustomRTCMediaStream>(
      CustomStreamFields{.audioTrack = std::make_shared<ScriptedAudioTrack>("own")});
  camera->disposeTracks();
  microphone->disposeTracks();
  test->meeting->enableWebcam(camera);
  test->meeting->unmuteMic(microphone);
  platform.pump();
  EXPECT_TRUE(test->listener->has("onError 3029 ERROR_INVALID_CUSTOM_VIDEO_TRACK"));
  EXPECT_TRUE(test->listener->has("onError 3030 ERROR_INVALID_CUSTOM_AUDIO_TRACK"));
  EXPECT_EQ(me()->streams().size(), 2u);
  EXPECT_TRUE(platform.capture->microphoneRunning);
}

TEST_F(TogglesTest, leavingInTheMiddleOfAToggleLeavesNothingRunning) {
  for (const char* held : {"produce", "camera"}) {
    SCOPED_TRACE(held);
    TestPlatform fresh;
    auto meeting = TestMeeting::joined(fresh);
    if (std::string(held) == "produce")
      fresh.service->withhold("produce");
    else
      fresh.capture->cameraStart = ScriptedCapture::Behaviour::hangs;
    meeting.meeting->enableWebcam();
    meeting.meeting->unmuteMic();
    fresh.pump();
    meeting.meeting->leave();
    fresh.pump();
    fresh.capture->finishHanging();
    while (fresh.service->answerLate("produce", ScriptedService::ok({{"id", "p"}}))) fresh.pump();
    fresh.advance(30s);
    EXPECT_FALSE(fresh.capture->microphoneRunning);
    EXPECT_EQ(fresh.journal.count("camera.start"), 1);
    EXPECT_GE(fresh.journal.count("camera.stop"), 1);
    EXPECT_EQ(meeting.listener->count("onMeetingLeft manualLeaveCalled"), 1);
  }
}

}  // namespace
}  // namespace kestrova::test
