#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DropFixture.h"

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

struct Request {
  const char* method;
  int answered = 0;
};
constexpr Request road[] = {{"requestEntry"},
                            {"getRouterRtpCapabilities"},
                            {"createWebRtcTransport"},
                            {"createWebRtcTransport", 1},
                            {"join"},
                            {"connectWebRtcTransport"},
                            {"produce"},
                            {"produce", 1}};

TEST(DropTest, anAnswerThatIsLostOnTheRoadOfTheJoinCostsNothing) {
  for (const auto& row : road)
    for (const auto away : {2s, 25s})
      for (const bool first : {true, false}) {
        SCOPED_TRACE(std::string(row.method) + " " + std::to_string(row.answered) + ", away " +
                     std::to_string(away.count()) + (first ? ", first join" : ", on a return"));
        Drop drop;
        if (!first) drop.join();
        drop.service().withholdOnce(row.method, row.answered);
        if (first)
          drop.join();
        else
          drop.dropAndReturn(1s);
        drop.dropAndComeBack(away);
        drop.expectOneMeeting(2);
      }
}

TEST(DropTest, whatWasSwitchedOffStaysOffWhoeverAskedForIt) {
  for (const bool byHost : {true, false})
    for (const auto away : {2s, 25s}) {
      SCOPED_TRACE(std::string(byHost ? "by a host" : "by the user"));
      Drop drop;
      drop.join();
      drop.service().withhold("closeProducer");
      if (byHost) {
        drop.test.notify("disableMic", {{"peerId", "me"}});
        drop.test.notify("disableWebcam", {{"peerId", "me"}});
      } else {
        drop.test.meeting->muteMic();
        drop.test.meeting->disableWebcam();
        drop.platform.pump();
      }
      drop.dropAndComeBack(away);
      drop.expectOneMeeting(0);
      drop.test.meeting->unmuteMic();
      drop.platform.pump();
      EXPECT_EQ(drop.me()->streams().size(), 1u) << "the toggle is free";
    }
}

TEST(DropTest, aChangeOfModeThatIsInterruptedLeavesTheMediaOfTheModeBefore) {
  struct Direction {
    Mode from, to;
    const char* method;
  };
  for (const auto& [from, to, method] :
       {Direction{Mode::SEND_AND_RECV, Mode::RECV_ONLY, "changeMode"},
        Direction{Mode::SEND_AND_RECV, Mode::RECV_ONLY, "closeProducer"},
        Direction{Mode::RECV_ONLY, Mode::SEND_AND_RECV, "changeMode"},
        Direction{Mode::RECV_ONLY, Mode::SEND_AND_RECV, "createWebRtcTransport"}})
    for (const auto away : {2s, 25s}) {
      SCOPED_TRACE(std::string(wireText(from)) + " " + method);
      Drop drop({.micEnabled = true, .webcamEnabled = true, .mode = from});
      drop.join();
      drop.service().withholdOnce(method);
      drop.test.meeting->changeMode(to);
      drop.platform.pump();
      drop.dropAndComeBack(away);
      const bool sends = sendsMedia(from);
      EXPECT_EQ(drop.test.meeting->meetingMode(), from);
      EXPECT_EQ(drop.service().last("join").at("mode"), Value(wireText(from)));
      EXPECT_EQ(drop.platform.media->send.expired(), !sends);
      EXPECT_FALSE(drop.platform.media->receive.expired());
      EXPECT_EQ(drop.me()->streams().size(), sends ? 2u : 0u) << "what was wished";
      EXPECT_EQ(drop.platform.capture->microphoneRunning, sends);
      EXPECT_EQ(drop.test.listener->count("onError 4065 CHANGE_MODE_FAILED"), 1);
      drop.test.meeting->changeMode(to);
      drop.platform.pump();
      EXPECT_EQ(drop.me()->streams().size(), sends ? 0u : 2u);
    }
}

TEST(DropTest, whatChangedMeanwhileIsKnownAfterTheReturn) {
  Drop drop;
  drop.join();
  const Dictionary bob{{"id", "bob"}, {"displayName", "bob"}, {"mode", "SEND_AND_RECV"}};
  const Dictionary bot{{"id", "bot"}, {"metaData", {{"agent_id", "g7"}}}};
  drop.test.addPeer("bob", bob);
  const auto agent = std::dynamic_pointer_cast<AgentParticipant>(drop.test.addPeer("bot", bot));
  drop.test.notify("agentStateChanged", {{"peerId", "bot"}, {"state", "SPEAKING"}});
  auto changed = bob;
  changed["mode"] = "VIEWER";
  drop.service().answer("join", {{"peers", List{changed, bot}}});
  drop.dropAndComeBack(2s);
  EXPECT_EQ(drop.test.meeting->participants().at("bob")->mode(), Mode::VIEWER);
  EXPECT_EQ(drop.test.listener->count("onParticipantModeChanged bob VIEWER"), 1);
  EXPECT_EQ(agent->agentState(), AgentState::IDLE);
}

TEST(DropTest, aDropBeforeTheEntryIsAskedForAsksOnceAndOnTheNextConnection) {
  Drop drop;
  drop.test.lookUp();
  drop.test.socket().open();
  drop.platform.advance(50ms);
  drop.test.socket().drop();
  drop.platform.pump();
  drop.test.socket().open();
  drop.platform.advance(60ms);
  EXPECT_EQ(drop.service().count("requestEntry"), 0) << "the first connection's moment is over";
  drop.platform.advance(40ms);
  drop.test.decide("allowed");
  drop.expectOneMeeting(2);
}

TEST(DropTest, aHostMayDecideAfterTheReturn) {
  Drop drop;
  drop.enter();
  drop.dropAndComeBack(2s);  // the host had not answered yet
  drop.test.decide("allowed");
  drop.test.decide("allowed");
  drop.expectOneMeeting(2);
}

TEST(DropTest, aReturnTellsNothingOfAStateThatIsOver) {
  Drop drop;
  drop.service().withholdOnce("requestEntry");
  drop.enter();
  drop.service().forgetRequests();
  drop.service().answerLate("requestEntry", ScriptedService::ok());
  drop.test.socket().drop();
  drop.platform.pump();
  EXPECT_EQ(drop.test.meeting->meetingState(), MeetingState::RECONNECTING)
      << "the entry was granted on a connection that is gone";
  drop.test.reachSocket();
  drop.test.decide("allowed");
  drop.expectOneMeeting(2);
}

TEST(DropTest, nothingIsSentOrWaitedForAfterOurOwnGoodbye) {
  Drop drop;
  drop.join();
  drop.test.addPeer("bob");
  drop.service().withhold("setConsumerPreferredLayers");
  drop.service().withhold("pauseAllConsumers");
  drop.test.announce("c1", "bob", "video");
  drop.test.meeting->participants().at("bob")->setQuality(VideoQuality::low);
  drop.test.meeting->pauseAllStreams();
  drop.platform.pump();
  drop.test.meeting->leave();
  drop.platform.pump();
  EXPECT_EQ(drop.test.listener->count("onMeetingLeft"), 2);
  EXPECT_FALSE(drop.test.listener->has("onError"));
  drop.service().forgetRequests();
  drop.platform.advance(60s);
  EXPECT_THAT(drop.service().methods(), IsEmpty());
}

// ---- What is wished while something else is under way ------------------------------------------

TEST(DropTest, aMuteWhileTheLibraryStartsTheMediumIsNeverForgotten) {
  for (const char* held : {"inside onMeetingJoined", "produce", "camera", "on a return"}) {
    SCOPED_TRACE(held);
    const std::string when = held;
    Drop drop;
    auto mute = [&] {
      drop.test.meeting->muteMic();
      drop.test.meeting->disableWebcam();
    };
    if (when == "inside onMeetingJoined") drop.test.listener->when("onMeetingJoined", mute);
    if (when == "produce") drop.service().withhold("produce");
    if (when == "camera") drop.platform.capture->cameraStart = ScriptedCapture::Behaviour::hangs;
    drop.join();
    if (when == "on a return") {
      drop.service().withholdOnce("produce");
      drop.dropAndReturn(2s);
    }
    mute();
    drop.platform.pump();
    for (const auto& published : drop.platform.media->published)
      EXPECT_FALSE(published.track->isEnabled()) << "silent before anything is answered";
    drop.platform.capture->finishHanging();
    while (drop.service().answerLate("produce", ScriptedService::ok({{"id", "late"}})))
      drop.platform.pump();
    drop.platform.advance(60s);
    EXPECT_THAT(drop.me()->streams(), IsEmpty());
    EXPECT_FALSE(drop.platform.capture->microphoneRunning);
    EXPECT_EQ(drop.platform.journal.count("camera.start"),
              drop.platform.journal.count("camera.stop"));
    drop.dropAndComeBack(2s);
    EXPECT_THAT(drop.me()->streams(), IsEmpty());
    drop.service().answer("produce", {{"id", "again"}});
    drop.test.meeting->unmuteMic();
    drop.platform.pump();
    EXPECT_EQ(drop.me()->streams().size(), 1u);
  }
}

TEST(DropTest, aToggleThatADropInterruptsIsCarriedOutByTheReturn) {
  Drop drop(InitMeetingOptions{});
  drop.join();
  drop.service().withhold("produce");
  drop.test.meeting->unmuteMic();
  drop.test.meeting->enableWebcam();
  drop.test.meeting
      ->disableWebcam();  // refused by the toggle under way, which leaves all as it was
  drop.platform.pump();
  drop.service().respond("produce", [](const Dictionary& data) {
    return ScriptedService::ok({{"id", text(data, "kind", "")}});
  });
  drop.dropAndComeBack(2s);
  drop.expectOneMeeting(2);
}

TEST(DropTest, whatIsAskedForWhileTheConnectionIsAwayOrNotJoinedYetIsDoneByTheJoin) {
  for (const bool away : {true, false}) {
    SCOPED_TRACE(away ? "away" : "a host has yet to let us in again");
    Drop drop(InitMeetingOptions{});
    drop.join();
    drop.test.socket().drop();
    if (!away) {
      drop.platform.pump();
      drop.test.reachSocket();
    }
    drop.test.meeting->enableWebcam();  // the guard has not heard of the drop yet
    drop.test.meeting->changeMode(Mode::VIEWER);
    drop.platform.pump();
    EXPECT_EQ(drop.test.listener->count("onError 4065 CHANGE_MODE_FAILED"), 1);
    EXPECT_EQ(drop.test.listener->count("onError"), 1);
    EXPECT_EQ(drop.service().count("changeMode"), 0);
    if (away) drop.test.reachSocket();
    drop.test.decide("allowed");
    EXPECT_EQ(drop.me()->streams().size(), 1u);
    EXPECT_EQ(drop.test.meeting->meetingMode(), Mode::SEND_AND_RECV);
  }
}

TEST(DropTest, aMediumThatIsSwitchedOnWhileTheModeEndsItIsOffAndComesBackWithTheMode) {
  Drop drop(InitMeetingOptions{});
  drop.join();
  drop.service().withholdOnce("changeMode");
  drop.test.meeting->changeMode(Mode::RECV_ONLY);
  drop.platform.pump();
  drop.test.meeting->unmuteMic();
  drop.platform.pump();
  drop.service().answerLate("changeMode", ScriptedService::ok());
  drop.platform.pump();
  EXPECT_THAT(drop.me()->streams(), IsEmpty());
  EXPECT_FALSE(drop.platform.capture->microphoneRunning);
  drop.test.meeting->changeMode(Mode::SEND_AND_RECV);
  drop.platform.pump();
  EXPECT_EQ(drop.me()->streams().size(), 1u);
  EXPECT_TRUE(drop.platform.capture->microphoneRunning);
}

TEST(DropTest, aTrackOfTheApplicationsIsGivenBackAsItWas) {
  Drop drop(InitMeetingOptions{});
  drop.join();
  const auto track = std::make_shared<ScriptedAudioTrack>("mine");
  const auto custom =
      std::make_shared<CustomRTCMediaStream>(CustomStreamFields{.audioTrack = track});
  for (int round = 0; round < 2; ++round) {
    drop.test.meeting->unmuteMic(custom);
    drop.platform.pump();
    ASSERT_EQ(drop.me()->streams().size(), 1u);
    drop.service().withholdOnce("closeProducer");
    drop.test.meeting->muteMic();
    EXPECT_FALSE(track->isEnabled()) << "silent at once";
    drop.platform.advance(20s);
    EXPECT_THAT(drop.me()->streams(), IsEmpty());
    EXPECT_TRUE(track->isEnabled());
  }
}

TEST(DropTest, aDeviceThatFailsWhileItIsPublishedEndsInTheStatedError) {
  Drop drop(InitMeetingOptions{});
  drop.join();
  drop.service().withhold("produce");
  drop.test.meeting->unmuteMic();
  drop.test.meeting->enableWebcam();
  drop.platform.pump();
  drop.platform.capture->failCameras("unplugged");
  drop.platform.capture->failMicrophones("unplugged");
  drop.platform.pump();
  int count = 0;
  while (
      drop.service().answerLate("produce", ScriptedService::ok({{"id", std::to_string(++count)}})))
    drop.platform.pump();
  EXPECT_THAT(drop.me()->streams(), IsEmpty());
  EXPECT_EQ(drop.test.listener->count("onError"), 2);
  EXPECT_EQ(drop.test.listener->errors.size(), 2u);
  for (const auto& error : drop.test.listener->errors) {
    EXPECT_TRUE(error == KestrovaError::ERROR_WEBCAM_TRACK_ENDED ||
                error == KestrovaError::ERROR_MICROPHONE_TRACK_ENDED);
    EXPECT_EQ(error.cause(), "unplugged");
  }
  EXPECT_EQ(drop.platform.traces.count("Capture ended by itself"), 2);
  EXPECT_EQ(drop.platform.traces.count("Emitting ERROR Event"), 2);
  drop.service().respond("produce", [](const Dictionary& data) {
    return ScriptedService::ok({{"id", text(data, "kind", "")}});
  });
  drop.test.meeting->unmuteMic();
  drop.test.meeting->enableWebcam();
  drop.platform.pump();
  EXPECT_EQ(drop.me()->streams().size(), 2u);
}

}  // namespace
}  // namespace kestrova::test
