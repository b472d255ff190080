#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

/// A meeting whose connection is lost in the middle of something.
struct Drop {
  explicit Drop(InitMeetingOptions options = {.micEnabled = true, .webcamEnabled = true})
      : test(platform, std::move(options)) {}

  ScriptedService& service() { return *platform.service; }
  std::shared_ptr<Participant> me() { return test.meeting->localParticipant(); }
  void enter() {
    test.lookUp();
    test.reachSocket();
  }
  void join() {
    enter();
    test.decide("allowed");
  }
  /// What is asked of the service is counted from the return on.
  void dropAndComeBack(std::chrono::milliseconds away) {
    dropAndReturn(away);
    platform.advance(30s);
  }
  void dropAndReturn(std::chrono::milliseconds away) {
    test.socket().drop();
    platform.pump();
    platform.advance(away);
    service().forgetRequests();
    platform.media->published.clear();
    test.reachSocket();
    test.decide("allowed");
  }
  void expectOneMeeting(std::size_t streams, const std::string& joinedAs = "onMeetingJoined") {
    EXPECT_EQ(test.meeting->meetingState(), MeetingState::CONNECTED);
    EXPECT_EQ(service().count("requestEntry"), 1);
    EXPECT_EQ(service().count("join"), 1);
    EXPECT_FALSE(platform.media->send.expired());
    EXPECT_FALSE(platform.media->receive.expired());
    EXPECT_EQ(service().count("createWebRtcTransport"), 2);
    EXPECT_EQ(service().count("produce"), static_cast<long>(streams));
    EXPECT_EQ(platform.media->published.size(), streams);
    EXPECT_EQ(me()->streams().size(), streams);
    for (const auto& [id, stream] : me()->streams()) EXPECT_FALSE(stream->producer()->closed());
    EXPECT_EQ(platform.capture->microphoneRunning, streams > 0);
    EXPECT_TRUE(test.listener->has(joinedAs));
    EXPECT_FALSE(test.listener->has("onError"));
    EXPECT_FALSE(test.listener->has("onMeetingStateChanged FAILED"));
    EXPECT_FALSE(test.listener->has("onMeetingLeft"));
  }

  TestPlatform platform;
  TestMeeting test;
};

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

TEST(DropTest, aMoveThatWasOnlyAskedForIsReportedAsFailed) {
  for (const auto away : {2s, 25s}) {
    Drop asked;
    asked.join();
    asked.service().withholdOnce("switchToMeeting");
    asked.test.meeting->switchTo("hall");
    asked.platform.pump();
    asked.dropAndComeBack(away);
    EXPECT_EQ(asked.test.listener->count("onError 4076 SWITCH_MEETING_FAILED"), 1);
    EXPECT_EQ(asked.test.meeting->id(), "room");
    EXPECT_EQ(asked.me()->streams().size(), 2u);
  }
}

TEST(DropTest, aMoveThatTheServiceForgetsIsTold) {
  Drop asked;
  asked.join();
  asked.test.meeting->switchTo("hall");
  asked.platform.pump();
  asked.dropAndComeBack(2s);
  EXPECT_EQ(asked.test.listener->count("onError 4076 SWITCH_MEETING_FAILED"), 1);
  asked.dropAndComeBack(2s);
  EXPECT_EQ(asked.test.listener->count("onError 4076 SWITCH_MEETING_FAILED"), 1);
  const Dictionary denied{{"sessionId", "hall's"}, {"id", "me"}, {"decision", "denied"}};
  const Dictionary here{
      {"sessionId", "s"}, {"id", "me"}, {"decision", "allowed"}, {"switchingRoomId", "room"}};
  for (const auto& decision : {denied, here}) {
    asked.test.meeting->switchTo("hall");
    asked.platform.pump();
    asked.test.notify("entryResponded", decision);
    asked.dropAndComeBack(2s);
    EXPECT_EQ(asked.test.listener->count("onError 4076 SWITCH_MEETING_FAILED"), 1)
        << "which the service has decided about";
  }
}

TEST(DropTest, ofTwoMovesTheLastOneIsJoined) {
  Drop drop;
  drop.join();
  drop.service().withholdOnce("join");
  for (const char* meeting : {"hall", "yard"})
    drop.test.notify(
        "entryResponded",
        {{"sessionId", "s"}, {"id", "me"}, {"decision", "allowed"}, {"switchingRoomId", meeting}});
  drop.service().answerLate("join",
                            ScriptedService::ok({{"peers", List{Dictionary{{"id", "bob"}}}}}));
  drop.platform.pump();
  EXPECT_FALSE(drop.test.listener->has("onParticipantJoined bob")) << "who is in the hall";
  EXPECT_EQ(drop.test.listener->count("onMeetingJoined hall"), 0);
  EXPECT_EQ(drop.test.listener->count("onMeetingJoined yard"), 1);
  EXPECT_EQ(drop.test.meeting->id(), "yard");
}

TEST(DropTest, aSecondMoveThatIsRefusedLeavesTheFirstItsToken) {
  Drop drop;
  drop.join();
  drop.test.meeting->switchTo("hall", "hall-token");
  drop.platform.pump();
  drop.service().refuse("switchToMeeting");
  drop.test.meeting->switchTo("hall", "hall-token");
  drop.test.meeting->switchTo("yard", "yard-token");
  drop.platform.pump();
  drop.test.notify(
      "entryResponded",
      {{"sessionId", "s"}, {"id", "me"}, {"decision", "allowed"}, {"switchingRoomId", "hall"}});
  EXPECT_EQ(drop.service().last("join").at("secret"), Value("hall-token"));
}

TEST(DropTest, aMoveThatAnotherHasReplacedIsNotMissed) {
  Drop drop;
  drop.join();
  for (const char* meeting : {"hall", "yard"}) drop.test.meeting->switchTo(meeting);
  drop.platform.pump();
  drop.test.notify(
      "entryResponded",
      {{"sessionId", "s"}, {"id", "me"}, {"decision", "allowed"}, {"switchingRoomId", "yard"}});
  drop.dropAndComeBack(2s);
  EXPECT_EQ(drop.test.listener->count("onError 4076"), 0);
}

TEST(DropTest, aDeniedMoveLeavesTheOtherItsToken) {
  Drop drop;
  drop.join();
  drop.test.meeting->switchTo("hall", "hall-token");
  drop.test.meeting->switchTo("yard", "yard-token");
  drop.platform.pump();
  drop.test.notify("entryResponded",
                   {{"sessionId", "yard's"}, {"id", "me"}, {"decision", "denied"}});
  drop.test.notify(
      "entryResponded",
      {{"sessionId", "s"}, {"id", "me"}, {"decision", "allowed"}, {"switchingRoomId", "hall"}});
  EXPECT_EQ(drop.service().last("join").at("secret"), Value("hall-token"));
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

TEST(DropTest, aMoveThatIsInterruptedIsEndedByTheReturn) {
  for (const auto away : {2s, 25s}) {
    Drop moved;
    moved.join();
    moved.test.meeting->switchTo("hall", "other-token");
    moved.platform.pump();
    moved.service().withholdOnce("join");
    const Dictionary move{
        {"sessionId", "s"}, {"id", "me"}, {"decision", "allowed"}, {"switchingRoomId", "hall"}};
    moved.test.notify("entryResponded", move);
    moved.dropAndComeBack(away);
    moved.expectOneMeeting(2, "onMeetingJoined hall");
    EXPECT_EQ(moved.test.meeting->id(), "hall");
    EXPECT_EQ(moved.service().requests().back().envelope.at("roomId"), Value("hall"));
    const auto& params = moved.service().connections().back().config.connectParams;
    EXPECT_EQ(params.at(0).second, "hall");
    EXPECT_EQ(params.at(2).second, "other-token");
    EXPECT_EQ(moved.service().last("join").at("secret"), Value("other-token"));
  }
}

TEST(DropTest, aMoveRightBehindTheJoinIsToldByItsOwnJoinAlone) {
  Drop drop;
  drop.enter();
  drop.service().withholdOnce("join");
  drop.test.decide("allowed");
  drop.service().answerLate("join", ScriptedService::ok({{"peers", List()}}));
  drop.test.notify(
      "entryResponded",
      {{"sessionId", "s"}, {"id", "me"}, {"decision", "allowed"}, {"switchingRoomId", "hall"}});
  EXPECT_EQ(drop.service().count("join"), 2);
  EXPECT_EQ(drop.test.listener->count("onMeetingJoined hall"), 1);
  EXPECT_EQ(drop.test.meeting->id(), "hall");
}

TEST(DropTest, aMoveInTheMiddleOfWhichTheMeetingEndsJoinsNothing) {
  for (const char* end : {"leave", "close", "lost for good"}) {
    SCOPED_TRACE(end);
    Drop drop;
    drop.join();
    drop.service().withholdOnce("join");
    drop.test.notify(
        "entryResponded",
        {{"sessionId", "s"}, {"id", "me"}, {"decision", "allowed"}, {"switchingRoomId", "hall"}});
    if (std::string(end) == "leave")
      drop.test.meeting->leave();
    else if (std::string(end) == "close")
      drop.test.notify("close", {{"reason", {{"code", 1006}}}});
    else
      drop.test.socket().fail();
    drop.platform.advance(30s);
    EXPECT_EQ(drop.test.listener->count("onMeetingLeft"), 2) << "one form each";
    EXPECT_FALSE(drop.test.listener->has("onMeetingJoined hall"));
    EXPECT_FALSE(drop.test.listener->has("onError"));
    EXPECT_EQ(drop.service().count("closeRoom"), 0);
  }
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
