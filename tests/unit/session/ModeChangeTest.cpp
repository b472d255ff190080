#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

namespace kestrova::test {
namespace {

using testing::IsEmpty;

constexpr Mode modes[] = {Mode::CONFERENCE, Mode::VIEWER, Mode::SEND_AND_RECV,
                          Mode::SIGNALLING_ONLY, Mode::RECV_ONLY};

std::string upper(Mode mode) {
  return std::string(wireText(mode));
}

TEST(ModeChangeTest, everyPairOfModesEndsWithTheMediaOfTheNewOne) {
  for (const auto from : modes)
    for (const auto to : modes) {
      if (from == to) continue;
      SCOPED_TRACE(upper(from) + " to " + upper(to));
      TestPlatform platform;
      auto test =
          TestMeeting::joined(platform, {.micEnabled = true, .webcamEnabled = true, .mode = from});
      test.addPeer("bob");
      if (receivesMedia(from)) test.announce("c1", "bob", "video");
      platform.service->forgetRequests();
      const auto me = test.meeting->localParticipant();
      const auto bob = test.meeting->participants().at("bob");
      ASSERT_EQ(me->streams().size(), sendsMedia(from) ? 2u : 0u);

      test.meeting->changeMode(to);
      platform.pump();
      EXPECT_EQ(test.meeting->meetingMode(), to);
      EXPECT_EQ(me->mode(), to);
      EXPECT_EQ(platform.service->last("changeMode"), (Dictionary{{"mode", upper(to)}}));
      EXPECT_EQ(me->streams().size(), sendsMedia(to) ? 2u : 0u);
      EXPECT_EQ(bob->streams().size(), receivesMedia(from) && receivesMedia(to) ? 1u : 0u);
      EXPECT_EQ(platform.capture->microphoneRunning, sendsMedia(to));
      EXPECT_EQ(platform.media->send.expired(), !sendsMedia(to));
      EXPECT_EQ(platform.media->receive.expired(), !receivesMedia(to));
      EXPECT_EQ(
          platform.service->count("createWebRtcTransport"),
          (sendsMedia(to) && !sendsMedia(from)) + (receivesMedia(to) && !receivesMedia(from)));
      EXPECT_EQ(platform.journal.count("device.load"), 1) << "the device is loaded once";

      test.meeting->changeMode(from);
      platform.pump();
      EXPECT_EQ(me->streams().size(), sendsMedia(from) ? 2u : 0u) << "the wishes stay";
      EXPECT_FALSE(test.listener->has("onError"));
    }
}

TEST(ModeChangeTest, refusalsLeaveEverythingAsItWas) {
  TestPlatform platform;
  auto test = TestMeeting::joined(platform, {.micEnabled = true});
  const auto me = test.meeting->localParticipant();
  test.meeting->changeMode(Mode::SEND_AND_RECV);
  platform.pump();
  EXPECT_EQ(platform.service->count("changeMode"), 0);
  EXPECT_TRUE(platform.traces.has("Error in changeMode() -> Already in SEND_AND_RECV Mode."));
  EXPECT_TRUE(platform.traces.has("Participant is already in SEND_AND_RECV Mode."));
  EXPECT_EQ(test.listener->count("onError 4065 CHANGE_MODE_FAILED"), 1);
  EXPECT_EQ(me->streams().size(), 1u);

  test.meeting->changeMode(static_cast<Mode>(17));
  platform.pump();
  EXPECT_EQ(test.listener->count("onError 3067 ERROR_INVALID_MODE"), 1);

  platform.service->refuse("changeMode");
  test.meeting->changeMode(Mode::RECV_ONLY);
  platform.pump();
  EXPECT_EQ(test.listener->count("onError 4065 CHANGE_MODE_FAILED"), 2);
  EXPECT_EQ(test.listener->errors.back().cause(), "no");
  EXPECT_EQ(test.meeting->meetingMode(), Mode::SEND_AND_RECV);
  EXPECT_EQ(me->streams().size(), 1u) << "what was stopped is back";
  EXPECT_TRUE(platform.capture->microphoneRunning);
  EXPECT_FALSE(platform.media->send.expired());
}

TEST(ModeChangeTest, changesRunOneAfterTheOther) {
  TestPlatform platform;
  auto test = TestMeeting::joined(platform, {.micEnabled = true});
  platform.service->withhold("changeMode");
  test.meeting->changeMode(Mode::RECV_ONLY);
  test.meeting->changeMode(Mode::CONFERENCE);
  platform.pump();
  EXPECT_EQ(platform.service->count("changeMode"), 1);
  while (platform.service->answerLate("changeMode", ScriptedService::ok())) platform.pump();
  EXPECT_EQ(platform.service->count("changeMode"), 2);
  EXPECT_EQ(test.meeting->meetingMode(), Mode::CONFERENCE);
  EXPECT_EQ(test.meeting->localParticipant()->streams().size(), 1u);
}

TEST(ModeChangeTest, mutedWhileReceivingOnlyStaysMuted) {
  TestPlatform platform;
  auto test = TestMeeting::joined(platform, {.micEnabled = true, .webcamEnabled = true});
  test.meeting->changeMode(Mode::RECV_ONLY);
  platform.pump();
  test.meeting->muteMic();
  platform.pump();
  test.meeting->changeMode(Mode::SEND_AND_RECV);
  platform.pump();
  EXPECT_EQ(test.meeting->localParticipant()->streams().size(), 1u);
  EXPECT_FALSE(platform.capture->microphoneRunning);
}

TEST(ModeChangeTest, aMeetingLeftInTheMiddleStartsNothing) {
  TestPlatform platform;
  auto test = TestMeeting::joined(platform, {.micEnabled = true, .mode = Mode::VIEWER});
  platform.service->withhold("changeMode");
  test.meeting->changeMode(Mode::SEND_AND_RECV);
  platform.pump();
  test.meeting->leave();
  platform.pump();
  platform.advance(std::chrono::seconds(30));
  EXPECT_FALSE(platform.capture->microphoneRunning);
  EXPECT_TRUE(platform.media->send.expired());
  EXPECT_THAT(test.meeting->localParticipant()->streams(), IsEmpty());
}

}  // namespace
}  // namespace kestrova::test
