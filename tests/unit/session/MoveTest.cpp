#include <gmock/gmock.h>

#include "DropFixture.h"

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;

TEST(MoveTest, aMoveThatWasOnlyAskedForIsReportedAsFailed) {
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

TEST(MoveTest, aMoveThatTheServiceForgetsIsTold) {
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

TEST(MoveTest, ofTwoMovesTheLastOneIsJoined) {
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

TEST(MoveTest, aSecondMoveThatIsRefusedLeavesTheFirstItsToken) {
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

TEST(MoveTest, aMoveThatAnotherHasReplacedIsNotMissed) {
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

TEST(MoveTest, aDeniedMoveLeavesTheOtherItsToken) {
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

TEST(MoveTest, aMoveThatIsInterruptedIsEndedByTheReturn) {
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

TEST(MoveTest, aMoveBesideTheJoinIsToldByItsOwnJoinAlone) {
  for (const bool isFirst : {false, true}) {
    SCOPED_TRACE(isFirst ? "before the answer" : "behind it");
    Drop drop;
    drop.enter();
    drop.service().withholdOnce("join");
    drop.test.decide("allowed");
    const auto answer = [&] {
      drop.service().answerLate("join", ScriptedService::ok({{"peers", List()}}));
    };
    if (!isFirst) answer();
    drop.test.notify(
        "entryResponded",
        {{"sessionId", "s"}, {"id", "me"}, {"decision", "allowed"}, {"switchingRoomId", "hall"}});
    if (isFirst) answer();
    drop.platform.advance(30s);
    EXPECT_EQ(drop.service().count("join"), 2);
    EXPECT_EQ(drop.test.listener->count("onMeetingJoined hall"), 1);
    EXPECT_EQ(drop.test.meeting->id(), "hall");
    EXPECT_EQ(drop.me()->streams().size(), 2u) << "the media of the first join goes along";
    drop.test.meeting->startWhiteboard();
    drop.platform.pump();
    EXPECT_EQ(drop.service().count("startWhiteboard"), 1) << "the meeting is joined";
  }
}

TEST(MoveTest, aMoveInTheMiddleOfWhichTheMeetingEndsJoinsNothing) {
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

}  // namespace
}  // namespace kestrova::test
