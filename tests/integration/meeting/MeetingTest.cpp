#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MeetingFixture.h"

namespace kestrova::test {
namespace {

using testing::Contains;
using testing::Not;
using testing::StartsWith;

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

TEST_F(MeetingTest, RefusedTokensFailTheJoinWithTheServicesCode) {
  for (const auto& [options, error] : {std::pair{"--expires -1h", "error 4002 INVALID_TOKEN"},
                                       {"--meeting other", "error 4022 UNAUTHORIZED_MEETING_ID"}}) {
    const auto ada = Attendee::join(service.token(options), person("ada", false));
    EXPECT_TRUE(ada->sees("state FAILED") && ada->sees(error)) << ada->story();
  }
}

TEST_F(MeetingTest, AnUntrustedCertificateFailsTheJoin) {
  ::unsetenv("SSL_CERT_FILE");
  const auto ada = Attendee::join(service.token(), person("ada", false));
  EXPECT_TRUE(ada->sees("state FAILED") && ada->sees("error 3047 ERROR_UNABLE_TO_JOIN_MEETING"))
      << ada->story();
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

TEST_F(MeetingTest, RubbishFromTheServiceIsDroppedAndTheMeetingLivesOn) {
  const auto ada = joinWithTone("ada", 440);
  const auto rubbish = [&](Dictionary body) {
    body["roomId"] = "integration";
    body["peerId"] = "ada";
    const auto answer = service.control("emit", body);
    EXPECT_TRUE(boolean(answer, "ok", false)) << boost::json::serialize(answer);
  };
  for (const char* method : {"newConsumer", "newPeer", "peerClosed", "consumerClosed",
                             "activeSpeaker", "entryResponded", "pinStateChanged", "nonsense"}) {
    for (const auto& data : List{nullptr, 7, "text", List{}, Dictionary{},
                                 Dictionary{{"id", 1e300}, {"peerId", List{1}}, {"kind", false}}})
      rubbish({{"event", "notification"}, {"payload", {{"method", method}, {"data", data}}}});
  }
  for (const auto& payload : List{nullptr, -1, "x", List{List{}}, Dictionary{}})
    for (const char* event : {"notification", "batchNotification", "newConsumer", "statsData", "?"})
      rubbish({{"event", event}, {"payload", payload}});
  // None of this may cost the picture or the sound.
  const auto grace = joinWithTone("grace", 660);
  EXPECT_TRUE(ada->getsMedia(660)) << ada->story();
  EXPECT_TRUE(grace->getsPictures()) << grace->story();
  EXPECT_THAT(ada->lines(), Not(Contains(StartsWith("left"))));
  grace->leaveAndWait();
  ada->leaveAndWait();
}

}  // namespace
}  // namespace kestrova::test
