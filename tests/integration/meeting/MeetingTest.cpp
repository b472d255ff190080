#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MeetingFixture.h"

namespace kestrova::test {
namespace {

using testing::Contains;
using testing::Not;

class MeetingTest : public MeetingFixture {};

TEST_F(MeetingTest, TwoPeopleSeeAndHearEachOther) {
  const auto ada = joinWithTone("ada", 440);
  const auto grace = joinWithTone("grace", 660);
  const auto flows = [](const std::shared_ptr<Attendee>& me, double hz) {
    return me->waitUntil([&] {
      return me->picture->clocksRead > 30 && me->picture->width >= 1280 &&
             me->sound->purity(hz) > 0.9;
    });
  };
  EXPECT_TRUE(flows(ada, 660)) << ada->story() << ", purity " << ada->sound->purity(660);
  EXPECT_TRUE(flows(grace, 440)) << grace->story() << ", purity " << grace->sound->purity(440);
  EXPECT_EQ(ada->picture->clockWentBack, 0);
  EXPECT_TRUE(ada->sees("speaker "));
  for (const auto& me : {ada, grace}) me->meeting->muteMic();
  EXPECT_TRUE(ada->sees("speaker nobody")) << ada->story();

  grace->leaveAndWait();
  EXPECT_TRUE(ada->sees("without grace manualLeaveCalled"));
  EXPECT_EQ(ada->count("loses "), 2);
  EXPECT_EQ(grace->count("left"), 2);
  EXPECT_EQ(grace->meeting->meetingState(), MeetingState::DISCONNECTED);
  ada->leaveAndWait();
}

TEST_F(MeetingTest, AHostDecidesWhoEnters) {
  const auto host = Attendee::join(service.token("--permissions allow_mod"), person("host", false));
  ASSERT_TRUE(host->sees("joined"));
  host->letsPeopleIn = true;
  const auto asking = service.token("--permissions ask_join");
  const auto guest = Attendee::join(asking, person("guest", false));
  EXPECT_TRUE(guest->sees("joined"));
  EXPECT_THAT(guest->lines(), Contains("entry guest allowed"));
  EXPECT_TRUE(host->sees("with guest"));

  host->letsPeopleIn = false;
  const auto stranger = Attendee::join(asking, person("stranger", false));
  EXPECT_TRUE(stranger->sees("entry stranger denied"));
  EXPECT_THAT(stranger->lines(), Not(Contains("joined")));
  EXPECT_THAT(host->lines(), Not(Contains("with stranger")));
}

TEST_F(MeetingTest, EndingTheMeetingSendsEverybodyAway) {
  const auto ada = Attendee::join(service.token(), person("ada", false));
  ASSERT_TRUE(ada->sees("joined"));
  const auto grace = Attendee::join(service.token(), person("grace", false));
  ASSERT_TRUE(grace->sees("joined"));
  ada->meeting->end();
  for (const auto& attendee : {ada, grace}) {
    EXPECT_TRUE(attendee->sees("left roomClose")) << attendee->story();
    EXPECT_EQ(attendee->count("left"), 2);
  }
}

}  // namespace
}  // namespace kestrova::test
