#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class JoinTest : public testing::Test {
protected:
  ScriptedService& service() { return *platform.service; }
  TestPlatform platform;
};

TEST_F(JoinTest, runsEveryStepInOrder) {
  TestMeeting test(platform, {.micEnabled = true, .webcamEnabled = true});
  EXPECT_TRUE(platform.session->requests.empty());

  test.lookUp();
  EXPECT_THAT(test.listener->take(), ElementsAre("onMeetingStateChanged CONNECTING"));
  EXPECT_EQ(test.socket().status(), SocketIOStatus::connecting);
  test.socket().open();
  platform.advance(99ms);
  EXPECT_THAT(service().methods(), IsEmpty()) << "the server needs a moment";
  platform.advance(1ms);
  EXPECT_THAT(service().methods(), ElementsAre("requestEntry"));
  EXPECT_EQ(service().last("requestEntry"), (Dictionary{{"name", "Ada"}}));
  EXPECT_THAT(test.listener->take(), ElementsAre("onMeetingStateChanged CONNECTED"));

  service().forgetRequests();
  service().answer("join", {{"peers", List{Dictionary{{"id", "bob"}, {"displayName", "Bob"}},
                                           Dictionary{{"id", ""}}, "rubbish"}},
                            {"pubSubUrl", "wss://topics.test"},
                            {"unsupportedCodecs", "not a list"}});
  test.decide("allowed");
  EXPECT_THAT(service().methods(), ElementsAre("getRouterRtpCapabilities", "createWebRtcTransport",
                                               "createWebRtcTransport", "join",
                                               "connectWebRtcTransport", "produce", "produce"));
  EXPECT_THAT(test.listener->take(), ElementsAre("onEntryResponded me allowed",
                                                 "onParticipantJoined bob", "onMeetingJoined"));
  EXPECT_THAT(test.localListener->take(), ElementsAre("onStreamEnabled audio-1 audio of me",
                                                      "onStreamEnabled video-2 video of me"));
  EXPECT_EQ(test.meeting->localParticipant()->streams().size(), 2u);
  EXPECT_TRUE(platform.capture->microphoneRunning);
}

TEST_F(JoinTest, sendsTheJoinRequestLetterForLetter) {
  const Dictionary metaData{{"team", "blue"}, {"enableAgentEvents", false}};
  TestMeeting::joined(platform,
                      {.mode = Mode::RECV_ONLY, .metaData = metaData, .enableBatching = false});
  EXPECT_EQ(
      service().last("join"),
      (Dictionary{
          {"displayName", "Ada"},
          {"device", "ios"},
          {"secret", "secret-token"},
          {"rtpCapabilities", {{"codecs", platform.media->codecs}}},
          {"metaData", {{"team", "blue"}, {"enableAgentEvents", true}}},
          {"switchingRoom", false},
          {"mode", "RECV_ONLY"},
          {"deviceInfo",
           {{"sdkType", "iOS"},
            {"sdkVersion", "3.2.0"},
            {"platform", "ios"},
            {"deviceUserAgent", {{"model", "x86_64"}, {"brand", "Apple"}, {"osVersion", "12.5"}}}}},
          {"batchingEnabled", false}}));
}

TEST_F(JoinTest, aServiceThatRefusesFailsTheMeeting) {
  struct Row {
    const char* body;
    int error;
    const char* cause;
  };
  const char* silent = "the service's answer says nothing of this meeting (HTTP status 401)";
  const char* noJson = "the service's answer is not JSON (HTTP status 401)";
  const Row rows[] = {
      {R"({"error":"secret-token, no","message":"secret-token has expired","code":4002})", 4002,
       "[REDACTED] has expired"},
      {R"({"error":"bad token","code":4001})", 4001, "bad token"},
      {R"({"data":{},"error":"x","code":4002})", 4002, "x"},
      {R"({"error":"odd","code":12345})", 4000, "odd"},
      {R"({"error":"odd","code":9223372036854775807})", 4000, "odd"},
      {R"({"error":"none","code":0})", 3047, "none"},
      {R"({"error":"negative","code":-4})", 3047, "negative"},
      {R"({"error":"text","code":"4001"})", 3047, "text"},
      {R"({"data":{"baseUrl":""}})", 3047, "the service named no signalling server"},
      {R"({"data":{"baseUrl":"no host"}})", 3047,
       "the service names an address that makes no sense"},
      {R"({"data":{"baseUrl":17,"code":4003}})", 4003, "the service named no signalling server"},
      {R"({"data":{}})", 3047, silent},
      {R"([1,2])", 3047, silent},
      {"not json", 3047, noJson},
      {"", 3047, noJson},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.body);
    TestPlatform own;
    own.session->answer(row.body, 401);
    auto track = std::make_shared<ScriptedVideoTrack>("mine");
    TestMeeting test(own, {.webcamEnabled = true,
                           .customCameraVideoStream = std::make_shared<CustomRTCMediaStream>(
                               CustomStreamFields{.videoTrack = track})});
    test.lookUp();
    ASSERT_EQ(test.listener->errors.size(), 1u);
    EXPECT_EQ(test.listener->errors[0].rawValue(), row.error);
    EXPECT_EQ(test.listener->errors[0].cause(), row.cause);
    EXPECT_EQ(test.listener->lines().back(), "onMeetingStateChanged FAILED");
    EXPECT_EQ(own.service->connections().size(), 0u);
    EXPECT_FALSE(track->isEnabled()) << "captured media is let go";
    test.meeting->join();
    own.pump();
    EXPECT_EQ(own.session->requests.size(), 1u) << "a failed meeting can't be joined again";
  }
}

TEST_F(JoinTest, aNetworkThatIsAwayFailsTheMeeting) {
  platform.session->fail("no route");
  TestMeeting test(platform);
  test.lookUp();
  EXPECT_EQ(test.meeting->meetingState(), MeetingState::FAILED);
  EXPECT_TRUE(platform.traces.has("Error while getting service configuration: no route"));
  EXPECT_EQ(test.listener->errors.at(0).cause(), "no route");
}

TEST_F(JoinTest, aRefusedEntryFailsTheMeeting) {
  service().refuse("requestEntry", 4005, "full");
  const auto test = TestMeeting::entering(platform);
  EXPECT_TRUE(
      platform.traces.has("Entry request failed with error:  [ ErrorCode: 4005, Message: full ] "));
  EXPECT_TRUE(test.listener->has("onError 3047"));
  EXPECT_EQ(test.listener->errors.at(0).cause(), "full");
  EXPECT_EQ(test.meeting->meetingState(), MeetingState::FAILED);
}

TEST_F(JoinTest, anEntryThatNobodyAnswersIsARefusalAfterItsTime) {
  service().withhold("requestEntry");
  const auto test = TestMeeting::entering(platform);
  platform.advance(19'999ms);
  EXPECT_EQ(test.meeting->meetingState(), MeetingState::CONNECTING);
  platform.advance(1ms);
  EXPECT_EQ(test.meeting->meetingState(), MeetingState::FAILED);
  EXPECT_TRUE(test.listener->has("onError 3047"));
  EXPECT_EQ(test.listener->errors.at(0).cause(), "timed out: the service did not answer");
}

TEST_F(JoinTest, onlyOurOwnAllowedEntryJoins) {
  auto test = TestMeeting::entering(platform);
  test.notify("entryResponded", {{"id", "me"}, {"decision", "allowed"}});  // no session
  test.notify("entryResponded", {{"sessionId", 4}, {"id", "me"}, {"decision", "allowed"}});
  test.notify("entryResponded", "rubbish");
  EXPECT_FALSE(test.listener->has("onEntryResponded"));
  test.decide("allowed", "bob");
  test.decide("denied");
  test.decide("ALLOWED");
  EXPECT_EQ(test.listener->count("onEntryResponded"), 3);
  EXPECT_EQ(service().count("join"), 0);
  EXPECT_EQ(platform.traces.count("Join Request Denied"), 3);
  test.decide("allowed");
  EXPECT_EQ(service().count("join"), 1);
}

TEST_F(JoinTest, withoutALoadedDeviceTheMeetingIsLeft) {
  struct Row {
    const char* what;
    std::function<void(TestPlatform&)> arrange;
  };
  const Row rows[] = {
      {"load", [](TestPlatform& p) { p.media->refused = {"load"}; }},
      {"no capabilities",
       [](TestPlatform& p) {
         p.service->respond("getRouterRtpCapabilities", [](const Dictionary&) { return "?"; });
       }},
      {"capabilities time out",
       [](TestPlatform& p) { p.service->withhold("getRouterRtpCapabilities"); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    TestPlatform own;
    row.arrange(own);
    auto test = TestMeeting::joined(own, {.micEnabled = true});
    own.advance(20s);
    EXPECT_EQ(own.service->count("join"), 0);
    EXPECT_TRUE(own.traces.has("Could not join the room deviceNotLoaded"));
    EXPECT_EQ(test.meeting->meetingState(), MeetingState::DISCONNECTED);
    EXPECT_EQ(test.listener->count("onMeetingLeft"), 2);
    EXPECT_TRUE(test.listener->has("onMeetingLeft joinRoomFailed"));
    EXPECT_FALSE(test.listener->has("onMeetingJoined"));
    EXPECT_EQ(test.socket().status(), SocketIOStatus::disconnected);
  }
}

TEST_F(JoinTest, aServiceThatGarblesTheTransportsStillLetsUsIn) {
  service().answer("createWebRtcTransport", {{"id", "send"}, {"iceParameters", "garbled"}});
  const auto test = TestMeeting::joined(platform, {.micEnabled = true});
  EXPECT_TRUE(platform.media->details.empty());
  EXPECT_TRUE(test.listener->has("onMeetingJoined"));
  EXPECT_TRUE(test.listener->has("onError 3035")) << "the microphone has nowhere to go";
}

TEST_F(JoinTest, aRefusedProducerLeavesTheMeetingJoined) {
  service().refuse("produce");
  const auto test = TestMeeting::joined(platform, {.micEnabled = true, .webcamEnabled = true});
  EXPECT_TRUE(test.listener->has("onMeetingJoined"));
  EXPECT_TRUE(test.meeting->localParticipant()->streams().empty());
  EXPECT_EQ(platform.traces.count("Error in produce event of Send Media Transport "), 2);
  EXPECT_TRUE(platform.traces.has("Error encountered while enabling microphone in unmuteMic()."));
  EXPECT_TRUE(platform.traces.has("Error encountered while enabling webcam in enableWebcam()"));
}

TEST_F(JoinTest, hostsAnswerTheEntryRequestsOfOthers) {
  auto test = TestMeeting::joined(platform);
  test.notify("entryRequested", {{"id", "bob"}, {"name", "Bob"}});
  test.notify("entryRequested", {{"id", "eve"}});
  test.notify("entryRequested", {{"name", "nobody"}});
  EXPECT_EQ(test.listener->count("onEntryRequested"), 2);
  test.listener->allow.at("bob")();
  platform.pump();
  EXPECT_EQ(service().last("respondEntry"), (Dictionary{{"id", "bob"}, {"decision", "allowed"}}));
  service().refuse("respondEntry");
  test.listener->deny.at("eve")();
  platform.pump();
  EXPECT_EQ(service().last("respondEntry"), (Dictionary{{"id", "eve"}, {"decision", "denied"}}));
  ASSERT_EQ(test.listener->errors.size(), 1u);
  EXPECT_EQ(test.listener->errors[0], KestrovaError::RESPOND_ENTRY_FAILED);

  test.meeting.reset();
  test.listener->allow.at("bob")();
  platform.pump();
  EXPECT_EQ(service().count("respondEntry"), 2) << "the meeting is gone";
}

}  // namespace
}  // namespace kestrova::test
