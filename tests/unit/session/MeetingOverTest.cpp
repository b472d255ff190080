#include <kestrova/platform/Farewells.h>

#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

#include <future>
#include <optional>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;
using Kind = MeetingEnd::Kind;

TEST(MeetingOverTest, comesInEveryCaseAfterTheListenersHaveHeard) {
  struct Row {
    const char* what;
    std::function<TestMeeting(TestPlatform&)> reach;
    std::function<void(TestMeeting&)> end;
    Kind kind;
    const char* heard;  // before it
    bool isFailure;
  };
  const auto joined = [](TestPlatform& platform) { return TestMeeting::joined(platform); };
  const auto entering = [](TestPlatform& platform) { return TestMeeting::entering(platform); };
  const auto lookingUp = [](TestPlatform& platform) { return TestMeeting(platform); };
  const auto closeFor = [](int code) {
    return [code](TestMeeting& t) { t.notify("close", {{"reason", {{"code", code}}}}); };
  };
  const Row rows[] = {
      {"left", joined, [](TestMeeting& t) { t.meeting->leave(); }, Kind::left,
       "onMeetingLeft manualLeaveCalled", false},
      {"ended for all", joined, closeFor(1006), Kind::ended, "onMeetingLeft roomClose", false},
      {"ended by the service", joined, closeFor(1009), Kind::ended, "onMeetingLeft meetingEndApi",
       false},
      {"removed", joined, closeFor(1010), Kind::removed, "onMeetingLeft removePeerApi", false},
      {"the same person again", joined, closeFor(1011), Kind::removed,
       "onMeetingLeft duplicateParticipant", false},
      {"attempts exhausted", joined,
       [](TestMeeting& t) {
         t.socket().drop();
         t.socket().fail();
       },
       Kind::connectionLost, "onMeetingLeft websocketConnectionAttemptsExhausted", true},
      {"attempts exhausted before the join", entering,
       [](TestMeeting& t) {
         t.socket().drop();
         t.socket().fail();
       },
       Kind::joinFailed, "onMeetingLeft websocketConnectionAttemptsExhausted", true},
      {"denied", entering, [](TestMeeting& t) { t.decide("denied"); }, Kind::denied,
       "onEntryResponded me denied", true},
      {"no answer from the service", lookingUp,
       [](TestMeeting& t) {
         t.platform->session->fail("no route");
         t.lookUp();
       },
       Kind::joinFailed, "onMeetingStateChanged FAILED", true},
      {"the join is refused", entering,
       [](TestMeeting& t) {
         t.platform->media->refused.insert("load");
         t.decide("allowed");
       },
       Kind::joinFailed, "onMeetingLeft joinRoomFailed", true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    TestPlatform platform;
    auto test = row.reach(platform);
    bool heardFirst = false;
    auto watch = [](Task<MeetingEnd> over, bool& heard, const TestMeeting& t,
                    const char* line) -> Task<MeetingEnd> {
      const auto end = co_await std::move(over);
      heard = t.listener->has(line);
      co_return end;
    };
    const auto end = platform.start(watch(test.meeting->untilOver(), heardFirst, test, row.heard));
    EXPECT_FALSE(*end);
    EXPECT_FALSE(test.meeting->over());
    row.end(test);
    platform.pump();
    ASSERT_TRUE(*end) << testing::PrintToString(test.listener->lines());
    EXPECT_TRUE(heardFirst) << testing::PrintToString(test.listener->lines());
    EXPECT_EQ(name((*end)->kind), name(row.kind));
    EXPECT_EQ((*end)->isFailure(), row.isFailure);
    EXPECT_FALSE(text(**end).empty());
    EXPECT_EQ(name(test.meeting->waitUntilOver().kind), name(row.kind)) << "it stays";
  }
}

TEST(MeetingOverTest, saysWhyWithoutTheToken) {
  TestPlatform platform;
  auto test = TestMeeting::entering(platform);
  test.socket().raise(
      SocketClientEvent::error,
      {Value{{"message", "no"}, {"data", {{"message", "secret-token is out of date"}}}}});
  test.socket().fail();
  platform.pump();
  ASSERT_TRUE(test.meeting->over());
  EXPECT_EQ(test.meeting->over()->cause, "[REDACTED] is out of date");
}

TEST(MeetingOverTest, lettingGoEndsAMeetingInEveryStateAndSaysGoodbye) {
  for (const bool isJoined : {false, true}) {
    TestPlatform platform;
    auto test = isJoined ? TestMeeting::joined(platform) : TestMeeting::entering(platform);
    const auto end = platform.start(test.meeting->untilOver());
    const auto socket = platform.service->socket();
    test.meeting.reset();
    platform.pump();
    ASSERT_TRUE(*end);
    EXPECT_EQ((*end)->kind, Kind::letGo);
    EXPECT_EQ(socket->status(), SocketIOStatus::disconnected);
    EXPECT_EQ(platform.service->count("definePeerLeftReason"), isJoined ? 1 : 0);
    EXPECT_FALSE(test.listener->has("onMeetingLeft"));
  }
}

TEST(MeetingOverTest, isToldWhenTheGoodbyeIsSaidAndTheExitWaitsForIt) {
  TestPlatform platform;
  auto test = TestMeeting::joined(platform);
  test.socket().holdGoodbye = true;
  test.meeting->leave();
  platform.pump();
  EXPECT_TRUE(test.listener->has("onMeetingLeft"));
  EXPECT_FALSE(test.meeting->over());
  EXPECT_FALSE(test.meeting->waitUntilOver(1ms));
  EXPECT_FALSE(Farewells::wait(1ms));
  test.socket().sayGoodbye();
  EXPECT_TRUE(test.meeting->over());
  EXPECT_TRUE(Farewells::wait(0ms));
}

TEST(MeetingOverTest, staysWhatItWasWhateverTheListenersDo) {
  TestPlatform platform;
  auto test = TestMeeting::joined(platform);
  const auto end = platform.start(test.meeting->untilOver());
  test.listener->when("onMeetingLeft", [&] { test.meeting.reset(); });
  test.socket().drop();
  test.socket().fail();
  platform.pump();
  ASSERT_TRUE(*end);
  EXPECT_EQ((*end)->kind, Kind::connectionLost);

  TestPlatform another;
  auto left = TestMeeting::joined(another);
  const auto leaving = another.start(left.meeting->untilOver());
  left.meeting->leave();
  left.meeting.reset();
  another.pump();
  ASSERT_TRUE(*leaving);
  EXPECT_EQ((*leaving)->kind, Kind::left);
}

TEST(MeetingOverTest, ofAFailureIsFinalAndTellsWhyItFailed) {
  TestPlatform platform;
  platform.service->refuse("requestEntry", 4009, "full");
  TestMeeting test(platform);
  test.meeting->unmuteMic();  // refused: an error that is not why the meeting ends
  test.lookUp();
  test.meeting->unmuteMic();
  test.reachSocket();
  ASSERT_TRUE(test.meeting->over());
  EXPECT_EQ(test.meeting->over()->error, KestrovaError::ERROR_UNABLE_TO_JOIN_MEETING);
  test.decide("allowed");
  platform.advance(60s);
  EXPECT_FALSE(test.listener->has("onMeetingJoined"));
  EXPECT_EQ(test.meeting->over()->kind, Kind::joinFailed);
  bool held = true;
  const std::shared_ptr<void> token(&held, [&](void*) { held = false; });
  test.meeting->listen({.onMeetingLeft = [token](LeaveReason) {}}).detach();
  EXPECT_EQ(token.use_count(), 1) << "nothing more is to be heard";
}

TEST(MeetingOverTest, isToldToNobodyOnALoopThatIsGone) {
  TestPlatform platform;
  auto test = TestMeeting::joined(platform);
  std::optional<boost::asio::io_context> loop(1);
  const auto token = std::make_shared<int>();
  auto watch = [](Task<MeetingEnd> over, std::shared_ptr<int>) -> Task<void> {
    (void)co_await std::move(over);
  };
  boost::asio::co_spawn(*loop, watch(test.meeting->untilOver(), token), boost::asio::detached);
  loop->poll();
  loop.reset();
  EXPECT_EQ(token.use_count(), 1);
  test.meeting->leave();
  platform.pump();
  EXPECT_TRUE(test.meeting->over());
}

TEST(MeetingOverTest, cannotBeWaitedForWhereItIsTold) {
  TestPlatform platform;
  auto test = TestMeeting::joined(platform);
  MainQueue::shared().async(
      [&] { EXPECT_THROW((void)test.meeting->waitUntilOver(1ms), std::logic_error); });
  platform.pump();
}

TEST(AdoptedLoopTest, runsUntilTheMeetingIsOverAndMayGoFirst) {
  TestPlatform platform;
  std::optional<boost::asio::io_context> loop(1);
  MainQueue::adopt(loop->get_executor());
  auto work = MainQueue::shared().work();
  EXPECT_EQ(loop->run_for(1ms), 0U);
  EXPECT_FALSE(loop->stopped()) << "there is work to wait for";
  work.reset();
  loop->run();
  EXPECT_TRUE(loop->stopped());

  // What comes after the loop runs elsewhere, and what was there is let go of.
  work = MainQueue::shared().work();
  loop.reset();
  work.reset();
  std::promise<void> ran;
  MainQueue::shared().async([&] { ran.set_value(); });
  EXPECT_EQ(ran.get_future().wait_for(60s), std::future_status::ready);
}

}  // namespace
}  // namespace kestrova::test
