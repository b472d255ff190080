#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class LeaveTest : public testing::Test {
protected:
  ScriptedService& service() { return *platform.service; }
  /// Everything that a meeting had open is closed, once, and nothing still waits.
  void expectAllClosed() {
    EXPECT_EQ(platform.journal.count("send.close"), 1);
    EXPECT_EQ(platform.journal.count("receive.close"), 1);
    EXPECT_FALSE(platform.capture->microphoneRunning);
  }
  static std::string messageOf(const TestMeeting& test, std::size_t index) {
    return test.listener->errors.at(index).message();
  }
  TestPlatform platform;
};

TEST_F(LeaveTest, takesEverythingDownAndTheSocketLast) {
  auto test = TestMeeting::joined(platform, {.micEnabled = true, .webcamEnabled = true});
  test.addPeer("bob");
  test.announce("c1", "bob", "video");
  platform.journal.clear();
  test.listener->take();
  service().forgetRequests();

  test.meeting->leave();
  EXPECT_EQ(test.meeting->meetingState(), MeetingState::DISCONNECTED);
  platform.pump();
  EXPECT_EQ(service().last("definePeerLeftReason"),
            (Dictionary{{"leaveReason", "MANUAL_LEAVE_CALLED"}}));
  EXPECT_THAT(service().methods(), ElementsAre("definePeerLeftReason"));
  EXPECT_THAT(platform.journal.lines(),
              ElementsAre("producer audio-1.close", "producer video-2.close", "microphone.stop",
                          "camera.stop", "send.close", "receive.close"));
  EXPECT_THAT(test.listener->lines(),
              UnorderedElementsAre("onMeetingStateChanged DISCONNECTED", "onMeetingLeft",
                                   "onMeetingLeft manualLeaveCalled"));
  EXPECT_EQ(test.socket().status(), SocketIOStatus::disconnected);
  EXPECT_FALSE(test.socket().hasHandlers());
  EXPECT_THAT(test.meeting->participants(), IsEmpty());
}

TEST_F(LeaveTest, theGuardRefusesWhatTheStateForbids) {
  TestMeeting fresh(platform);
  fresh.meeting->leave();
  fresh.meeting->end();
  platform.pump();
  EXPECT_EQ(messageOf(fresh, 0), "You must join the meeting before calling the leave() method.");
  EXPECT_EQ(messageOf(fresh, 1), "You must join the meeting before calling the end() method.");
  EXPECT_EQ(fresh.listener->errors[0], KestrovaError::ERROR_ACTION_PERFORMED_BEFORE_MEETING_JOINED);

  auto test = TestMeeting::entering(platform);
  test.meeting->leave();
  platform.pump();
  EXPECT_EQ(test.listener->errors.at(0),
            KestrovaError::ERROR_ACTION_PERFORMED_BEFORE_MEETING_JOINED)
      << "a socket that stands is not yet a meeting that is joined";
  test.decide("allowed");
  test.socket().drop();
  platform.pump();
  test.meeting->end();
  platform.pump();
  EXPECT_EQ(test.listener->errors.at(1), KestrovaError::ERROR_MEETING_RECONNECTING);
  test.meeting->leave();
  test.meeting->leave();
  test.meeting->end();
  platform.pump();
  EXPECT_EQ(messageOf(test, 2),
            "You have already left the meeting, so leave() is no longer available.");
  EXPECT_EQ(messageOf(test, 3),
            "You have already left the meeting, so end() is no longer available.");
  EXPECT_EQ(test.listener->errors[3], KestrovaError::ERROR_ALREADY_IN_REQUESTED_STATE);
  EXPECT_EQ(service().count("closeRoom"), 0);
  EXPECT_EQ(test.listener->count("onMeetingLeft"), 2);
}

TEST_F(LeaveTest, endAsksTheServiceAndItsCloseTakesTheMeetingDown) {
  auto test = TestMeeting::joined(platform);
  service().refuse("closeRoom", 4010, "not allowed");
  test.meeting->end();
  platform.pump();
  EXPECT_TRUE(platform.traces.has("Error in end() ->  [ ErrorCode: 4010, Message: not allowed ] "));
  EXPECT_FALSE(test.listener->has("onMeetingLeft"));
  EXPECT_EQ(service().last("closeRoom"), Dictionary());

  test.notify("close", {{"reason", {{"code", 1010}}}});
  EXPECT_TRUE(test.listener->has("onMeetingLeft removePeerApi"));
  EXPECT_EQ(service().count("definePeerLeftReason"), 0);
  expectAllClosed();
}

TEST_F(LeaveTest, theLeftEventsComeOnceWhicheverEndsFirst) {
  struct Row {
    const char* what;
    std::function<void(TestMeeting&)> end;
    const char* reason;
  };
  const Row rows[] = {
      {"close, then the drop that follows",
       [](TestMeeting& t) {
         t.socket().notify("close", {{"reason", {{"code", 1006}}}});
         t.socket().fail();
       },
       "onMeetingLeft roomClose"},
      {"drop, then a close that was on its way",
       [](TestMeeting& t) {
         t.socket().fail();
         t.socket().notify("close", {{"reason", {{"code", 1006}}}});
       },
       "onMeetingLeft websocketDisconnected"},
      {"leave, then close",
       [](TestMeeting& t) {
         t.meeting->leave();
         t.socket().notify("close", {{"reason", {{"code", 1009}}}});
       },
       "onMeetingLeft "},
      {"attempts exhausted",
       [](TestMeeting& t) {
         t.socket().drop();
         t.socket().fail();
       },
       "onMeetingLeft websocketConnectionAttemptsExhausted"},
      {"two closes, the second without a reason",
       [](TestMeeting& t) {
         t.socket().notify("close", {{"reason", {{"code", 1050}}}});
         t.socket().notify("close", "rubbish");
       },
       "onMeetingLeft unknown"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    TestPlatform own;
    auto test = TestMeeting::joined(own, {.micEnabled = true});
    row.end(test);
    own.pump();
    own.advance(60s);
    EXPECT_EQ(test.listener->count("onMeetingLeft"), 2);
    EXPECT_TRUE(test.listener->has(row.reason)) << testing::PrintToString(test.listener->lines());
    EXPECT_EQ(own.journal.count("send.close"), 1);
    EXPECT_EQ(own.journal.count("producer audio-1.close"), 1);
    EXPECT_FALSE(own.capture->microphoneRunning);
  }
}

TEST_F(LeaveTest, aReconnectionIsHeardEveryTenSecondsUntilItEnds) {
  auto test = TestMeeting::joined(platform);
  test.listener->take();
  const auto beats = [&] { return test.listener->count("onMeetingStateChanged RECONNECTING"); };
  test.socket().drop();
  platform.pump();
  EXPECT_EQ(beats(), 1);
  platform.advance(9'999ms);
  EXPECT_EQ(beats(), 1);
  platform.advance(1ms);
  EXPECT_EQ(beats(), 2);
  platform.advance(30s);
  EXPECT_EQ(beats(), 5);
  test.reachSocket();
  platform.advance(60s);
  EXPECT_EQ(beats(), 5);
  EXPECT_EQ(test.listener->count("onMeetingStateChanged CONNECTED"), 1);

  test.socket().drop();
  platform.pump();
  test.meeting->leave();
  platform.advance(60s);
  EXPECT_EQ(beats(), 6) << "leaving ends the heartbeat";
}

TEST_F(LeaveTest, userCodeMayEndTheMeetingFromInsideAnyCallback) {
  for (const char* moment :
       {"onMeetingStateChanged CONNECTING", "onMeetingStateChanged CONNECTED", "onEntryResponded",
        "onMeetingJoined", "onParticipantJoined", "onMeetingLeft"}) {
    for (const bool leaveFirst : {true, false}) {
      SCOPED_TRACE(std::string(moment) + (leaveFirst ? ", leave" : ", last reference"));
      TestPlatform own;
      TestMeeting test(own, {.micEnabled = true, .webcamEnabled = true});
      std::weak_ptr<Meeting> watch = test.meeting;
      test.listener->when(moment, [&] {
        if (leaveFirst && test.meeting) test.meeting->leave();
        test.meeting.reset();
      });
      const auto step = [&](const std::function<void()>& act) {
        if (own.service->socket()) act();
        own.advance(100ms);
      };
      test.lookUp();
      step([&] { test.socket().open(); });
      step([&] { test.decide("allowed"); });
      step([&] { test.addPeer("bob"); });
      step([&] { test.socket().notify("close", Dictionary()); });
      own.advance(30s);
      EXPECT_TRUE(watch.expired());
      EXPECT_EQ(own.service->socket(), nullptr) << "nothing outlives the last reference";
      EXPECT_TRUE(own.media->send.expired() && own.media->receive.expired());
      EXPECT_FALSE(own.capture->microphoneRunning);
      EXPECT_EQ(own.clock->pending(), 0u);
    }
  }
}

TEST_F(LeaveTest, theLastReferenceMayGoWhileAnyRequestOfTheJoinIsUnderWay) {
  for (const char* method : {"requestEntry", "getRouterRtpCapabilities", "createWebRtcTransport",
                             "join", "connectWebRtcTransport", "produce"}) {
    for (const bool answered : {true, false}) {
      SCOPED_TRACE(std::string(method) + (answered ? ", answered" : ", timed out"));
      TestPlatform own;
      own.service->withhold(method);
      auto test = TestMeeting::joined(own, {.micEnabled = true, .webcamEnabled = true});
      const auto socket = own.service->socket();
      test.meeting.reset();
      own.pump();
      own.journal.clear();
      own.service->forgetRequests();
      if (answered)
        while (own.service->answerLate(method, ScriptedService::ok({{"id", "late"}}))) own.pump();
      own.advance(60s);
      EXPECT_EQ(own.media->send.use_count(), 0);
      EXPECT_EQ(own.service->count("join") + own.journal.count("microphone.start"), 0)
          << "nothing more is begun";
      EXPECT_FALSE(own.capture->microphoneRunning);
      EXPECT_EQ(own.clock->pending(), 0u);
    }
  }
}

TEST_F(LeaveTest, theLastReferenceMayGoWhileTheServiceIsLookedUp) {
  platform.session->withhold();
  TestMeeting test(platform);
  test.lookUp();
  test.meeting.reset();
  platform.pump();
  platform.session->release();
  platform.pump();
  EXPECT_TRUE(service().connections().empty()) << "nobody is left to connect for";
}

TEST_F(LeaveTest, aCloseInTheMiddleOfJoiningEndsTheJoin) {
  for (const char* method :
       {"getRouterRtpCapabilities", "createWebRtcTransport", "join", "produce"}) {
    SCOPED_TRACE(method);
    TestPlatform own;
    own.service->withhold(method);
    auto test = TestMeeting::joined(own, {.micEnabled = true, .webcamEnabled = true});
    test.notify("close", {{"reason", {{"code", 1006}}}});
    const Value late = ScriptedService::ok({{"id", "late"},
                                            {"iceParameters", Dictionary()},
                                            {"iceCandidates", List()},
                                            {"dtlsParameters", Dictionary()}});
    while (own.service->answerLate(method, late)) own.pump();
    own.advance(60s);
    auto lines = test.listener->take();
    std::erase(lines, "onMeetingStateChanged DISCONNECTED");
    EXPECT_EQ(lines.back(), "onMeetingLeft roomClose") << testing::PrintToString(lines);
    EXPECT_FALSE(own.capture->microphoneRunning) << "nothing captures on";
    EXPECT_TRUE(!own.media->send.lock() || own.media->send.lock()->closed());
    EXPECT_TRUE(!own.media->receive.lock() || own.media->receive.lock()->closed());
    EXPECT_TRUE(test.meeting->localParticipant()->streams().empty());
  }
}

TEST_F(LeaveTest, listenersThatAreGoneOrGoingDontDisturbTheOthers) {
  auto test = TestMeeting::joined(platform);
  auto leaving = std::make_shared<RecordingListener>();
  auto dying = std::make_shared<RecordingListener>();
  auto late = std::make_shared<RecordingListener>();
  leaving->when("onRecordingStarted", [&] {
    test.meeting->removeEventListener(leaving);
    test.meeting->addEventListener(late);
  });
  test.meeting->addEventListener(leaving);
  test.meeting->addEventListener(leaving);
  test.meeting->addEventListener(dying);
  test.meeting->addEventListener(nullptr);
  test.meeting->removeEventListener(late);
  std::weak_ptr<RecordingListener> watch = dying;
  dying.reset();
  EXPECT_TRUE(watch.expired()) << "membership keeps nobody alive";
  test.listener->take();
  test.notify("recordingStarted", {});
  test.notify("recordingStopped", {});
  EXPECT_THAT(test.listener->lines(), ElementsAre("onRecordingStarted", "onRecordingStopped"));
  EXPECT_THAT(leaving->lines(), ElementsAre("onRecordingStarted"));
  EXPECT_THAT(late->lines(), ElementsAre("onRecordingStopped"));
  test.meeting->removeAllEventListeners();
  test.notify("recordingStarted", {});
  EXPECT_EQ(test.listener->lines().size(), 2u);
}

}  // namespace
}  // namespace kestrova::test
