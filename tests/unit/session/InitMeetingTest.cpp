#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

#include <set>

namespace kestrova::test {
namespace {

std::shared_ptr<CustomRTCMediaStream> cameraStream(std::shared_ptr<RTCVideoTrack> track) {
  return std::make_shared<CustomRTCMediaStream>(
      CustomStreamFields{.videoTrack = std::move(track), .videoCodec = VideoCodec::H264});
}

std::shared_ptr<CustomRTCMediaStream> microphoneStream(std::shared_ptr<RTCAudioTrack> track) {
  return std::make_shared<CustomRTCMediaStream>(CustomStreamFields{.audioTrack = std::move(track)});
}

TEST(InitMeetingDeathTest, aMissingTokenOrMeetingIdStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto init = [](const char* token, const char* meetingId) {
    TestPlatform platform;
    Kestrova::config(token);
    Kestrova::initMeeting({.meetingId = meetingId});
  };
  EXPECT_DEATH(init("", ""), "JWT server token is not provided");
  EXPECT_DEATH(init("token", ""), "meetingId is not provided");
}

TEST(InitMeetingTest, madeUpIdsAreEightLettersOrDigitsAndDiffer) {
  TestPlatform platform;
  Kestrova::config("token");
  std::set<std::string> ids;
  for (int i = 0; i < 50; ++i)
    ids.insert(Kestrova::initMeeting({.meetingId = "room"})->localParticipant()->id());
  EXPECT_EQ(ids.size(), 50u);
  for (const auto& id : ids) EXPECT_THAT(id, testing::MatchesRegex("[a-zA-Z0-9]{8}"));
}

TEST(InitMeetingTest, tracksWithoutUseAreLetGoAtOnce) {
  struct Row {
    std::optional<Mode> mode;
    bool mic;
    bool cam;
    bool keepsAudio;
    bool keepsVideo;
  };
  const Row rows[] = {
      {std::nullopt, true, true, true, true},
      {Mode::CONFERENCE, true, true, true, true},
      {Mode::SEND_AND_RECV, true, false, true, false},
      {Mode::SEND_AND_RECV, false, true, false, true},
      {Mode::VIEWER, true, true, false, false},
      {Mode::SIGNALLING_ONLY, true, true, false, false},
      {Mode::RECV_ONLY, true, true, false, false},
  };
  TestPlatform platform;
  Kestrova::config("token");
  for (const auto& row : rows) {
    SCOPED_TRACE(row.mode ? std::string(wireText(*row.mode)) : "no mode");
    const auto video = std::make_shared<ScriptedVideoTrack>("v");
    const auto audio = std::make_shared<ScriptedAudioTrack>("a");
    const auto meeting = Kestrova::initMeeting({.meetingId = "room",
                                                .micEnabled = row.mic,
                                                .webcamEnabled = row.cam,
                                                .customCameraVideoStream = cameraStream(video),
                                                .customAudioTrack = microphoneStream(audio),
                                                .mode = row.mode});
    EXPECT_EQ(meeting->customVideoMediaStream() != nullptr, row.keepsVideo);
    EXPECT_EQ(meeting->customAudioMediaStream() != nullptr, row.keepsAudio);
    EXPECT_EQ(video->isEnabled(), row.keepsVideo);
    EXPECT_EQ(audio->isEnabled(), row.keepsAudio);
  }
}

TEST(InitMeetingTest, aLaterTokenServesLaterMeetingsOnly) {
  TestPlatform platform;
  Kestrova::config("first");
  const auto first = Kestrova::initMeeting({.meetingId = "room"});
  Kestrova::config("second");
  const auto second = Kestrova::initMeeting({.meetingId = "room"});
  first->join();
  second->join();
  platform.pump();
  std::vector<std::string> secrets;
  for (const auto& request : platform.session->requests)
    for (const auto& [name, value] : request.headers)
      if (name == "Authorization") secrets.push_back(value);
  EXPECT_THAT(secrets, testing::ElementsAre("first", "second"));
}

}  // namespace
}  // namespace kestrova::test
