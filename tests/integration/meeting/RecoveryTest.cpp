#include <gmock/gmock.h>

#include "ChildAttendee.h"
#include "MeetingFixture.h"

namespace kestrova::test {
namespace {

using testing::Contains;
using testing::Not;
using testing::StartsWith;

class RecoveryTest : public MeetingFixture {
protected:
  /// One for all: what a person captures anew after a return is what is configured then.
  static constexpr double tone = ChildAttendee::toneHz;

  /// Both are there once, with one picture and one sound each, and see and hear each other.
  static void expectWhole(Attendee& ada, Attendee& grace) {
    EXPECT_TRUE(ada.getsMedia(tone)) << ada.story();
    EXPECT_TRUE(grace.getsMedia(tone)) << grace.story();
    for (auto* me : {&ada, &grace}) {
      const auto others = me->meeting->participants();
      ASSERT_EQ(others.size(), 1u) << me->story();
      EXPECT_EQ(others.begin()->second->streams().size(), 2u) << me->story();
      EXPECT_EQ(me->meeting->localParticipant()->streams().size(), 2u) << me->story();
      EXPECT_EQ(me->meeting->meetingState(), MeetingState::CONNECTED);
    }
  }
};

TEST_F(RecoveryTest, APersonWhoseProcessIsKilledLeavesAfterTheGraceTime) {
  const auto ada = joinSmall("ada", tone);
  ChildAttendee grace(service.address(), service.token(), "grace");
  ASSERT_TRUE(ada->sees("with grace"));
  ASSERT_TRUE(ada->getsMedia(tone)) << ada->story();
  const auto killed = std::chrono::steady_clock::now();
  grace.kill();
  ASSERT_TRUE(ada->sees("without grace")) << ada->story();
  const auto took = std::chrono::steady_clock::now() - killed;
  EXPECT_GE(took, std::chrono::milliseconds(4900));
  EXPECT_LT(took, std::chrono::seconds(20)) << "not only when pings stay away";
  EXPECT_EQ(ada->count("loses "), 2) << ada->story();
  EXPECT_TRUE(ada->meeting->participants().empty());
}

TEST_F(RecoveryTest, TheServiceGoesAwayAndTheMeetingIsEnteredAgain) {
  const auto ada = joinWithTone("ada", tone);
  const auto grace = joinSmall("grace", tone);
  ASSERT_TRUE(ada->getsMedia(tone) && grace->getsMedia(tone));

  struct Absence {
    const char* what;
    std::function<void()> begin;
  };
  const Absence absences[] = {
      {"a dropped socket",
       [&] {
         service.control("dropSocket", {{"roomId", "integration"}});
       }},
      {"meetings are kept",
       [&] {
         service.control("restart", {{"downMs", 500}, {"keepRooms", true}});
       }},
      {"meetings are forgotten",
       [&] {
         service.control("restart", {{"downMs", 500}});
       }},
      {"another process",
       [&] {
         service.kill();
         service.startAgain();
       }},
  };
  int times = 1;
  for (const auto& [what, begin] : absences) {
    SCOPED_TRACE(what);
    const int lost = ada->count("loses ");
    begin();
    ++times;
    for (const auto& me : {ada, grace}) {
      ASSERT_TRUE(me->seesTimes("state RECONNECTING", times - 1)) << me->story();
      ASSERT_TRUE(me->seesTimes("joined", times)) << me->story();
      ASSERT_TRUE(me->seesTimes("own video", times)) << me->story();
      ASSERT_TRUE(me->seesTimes("own audio", times)) << me->story();
    }
    // What came before is gone, and the same has been announced anew.
    EXPECT_TRUE(ada->waitUntil([&] { return ada->count("loses ") >= lost + 2; }));
    expectWhole(*ada, *grace);
    if (HasFailure()) return;
  }
  EXPECT_THAT(ada->lines(), Not(Contains(StartsWith("error"))));
  EXPECT_THAT(grace->lines(), Not(Contains(StartsWith("error"))));
  grace->leaveAndWait();
  EXPECT_TRUE(ada->waitUntil([&] { return ada->meeting->participants().empty(); }));
  ada->leaveAndWait();
}

}  // namespace
}  // namespace kestrova::test
