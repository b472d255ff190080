#include "MeetingFixture.h"

namespace kestrova::test {
namespace {

constexpr double tone = 440;

class RelayTest : public MeetingFixture {
protected:
  using MeetingFixture::MeetingFixture;

  std::shared_ptr<Attendee> joinOther(const std::string& id) {
    auto options = person(id, false);
    options.meetingId = "other";
    auto attendee = Attendee::join(service.token(), std::move(options));
    attendee->takesRelays = true;
    EXPECT_TRUE(attendee->sees("joined")) << attendee->story();
    return attendee;
  }
  void drop(const std::string& meetingId, const std::string& peerId) {
    service.control("dropSocket", {{"roomId", meetingId}, {"peerId", peerId}});
  }

  const std::shared_ptr<Attendee> ada = joinSmall("ada", tone);
  const std::shared_ptr<Attendee> host = joinOther("host");
};

TEST_F(RelayTest, peopleAreSeenAndHeardInTheOtherMeetingAlsoAfterADropOfEitherSide) {
  ada->meeting->requestMediaRelay("other");
  ASSERT_TRUE(ada->sees("relay accepted by host of other")) << ada->story();
  EXPECT_TRUE(ada->sees("relay on other")) << ada->story();
  EXPECT_TRUE(host->sees("relay asked by ada of integration")) << host->story();
  EXPECT_TRUE(host->sees("relay on integration")) << host->story();
  EXPECT_TRUE(host->sees("with ada")) << host->story();
  EXPECT_TRUE(host->getsMedia(tone)) << host->story();
  EXPECT_EQ(host->picture->clockWentBack, 0);

  drop("other", "host");
  ASSERT_TRUE(host->seesTimes("joined", 2)) << host->story();
  EXPECT_TRUE(host->getsMedia(tone)) << host->story();
  drop("integration", "ada");
  ASSERT_TRUE(ada->seesTimes("own video", 2)) << ada->story();
  EXPECT_TRUE(host->getsMedia(tone)) << host->story();
  EXPECT_EQ(host->count("relay off"), 0);
  EXPECT_EQ(host->meeting->participants().size(), 1u);

  const auto guest = joinOther("guest");
  EXPECT_TRUE(guest->getsMedia(tone)) << guest->story();

  ada->meeting->stopMediaRelay("other");
  for (const auto& who : {host, guest}) {
    EXPECT_TRUE(who->sees("without ada removePeerMediaRelayStop")) << who->story();
    EXPECT_TRUE(who->sees("relay off integration")) << who->story();
  }
  EXPECT_TRUE(ada->sees("relay off other")) << ada->story();
  ada->meeting->stopMediaRelay("other");
  EXPECT_TRUE(ada->sees("error 4079 STOP_MEDIA_RELAY_FAILED")) << ada->story();
}

TEST_F(RelayTest, oneKindIsWithheldAndComesBack) {
  ada->meeting->requestMediaRelay("other", std::nullopt, std::vector<std::string>{"video"});
  ASSERT_TRUE(host->getsPictures()) << host->story();
  EXPECT_EQ(host->count("gets audio"), 0);
  ada->meeting->enableRelayMedia("other", "audio");
  EXPECT_TRUE(host->getsMedia(tone)) << host->story();
  ada->meeting->disableRelayMedia("other", "video");
  EXPECT_TRUE(host->sees("loses video")) << host->story();
  host->sound->forget();
  EXPECT_TRUE(host->waitUntil([&] { return host->sound->presence(tone) > 0.85; }));
}

TEST_F(RelayTest, whatCannotBeIsRefusedAndTheEndOfAMeetingEndsIt) {
  ada->meeting->requestMediaRelay("nowhere");
  EXPECT_TRUE(ada->sees("error 4078 REQUEST_MEDIA_RELAY_FAILED")) << ada->story();
  ada->meeting->requestMediaRelay("other", "no token at all");
  EXPECT_TRUE(ada->seesTimes("error 4078", 2)) << ada->story();
  host->takesRelays = false;
  ada->meeting->requestMediaRelay("other");
  EXPECT_TRUE(ada->sees("relay rejected by host of other")) << ada->story();
  host->meeting->handleRelayRequestResponse("accepted", "ada", "integration");
  EXPECT_TRUE(host->sees("error 4084 RESPOND_MEDIA_RELAY_REQUEST_FAILED")) << host->story();
  host->takesRelays = true;
  ada->meeting->requestMediaRelay("other");
  ASSERT_TRUE(host->getsPictures()) << host->story();
  ada->meeting->requestMediaRelay("other");
  EXPECT_TRUE(ada->seesTimes("error 4078", 3)) << ada->story() << ": it runs already";
  host->meeting->end();
  EXPECT_TRUE(ada->sees("relay off other")) << ada->story();
  EXPECT_EQ(ada->count("left"), 0);
}

class RelayBetweenWorkersTest : public RelayTest {
protected:
  RelayBetweenWorkersTest() : RelayTest({"--workers", "2"}) {}
};

TEST_F(RelayBetweenWorkersTest, peopleAreSeenAndHeardToo) {
  host->takesRelays.reset();
  ada->meeting->requestMediaRelay("other");
  ASSERT_TRUE(host->sees("relay asked by ada")) << host->story();
  host->meeting->handleRelayRequestResponse("accepted", "ada", "integration");
  EXPECT_TRUE(host->getsMedia(tone)) << host->story();
  service.control("failRelay",
                  {{"roomId", "integration"}, {"meetingId", "other"}, {"reason", "broken"}});
  EXPECT_TRUE(ada->sees("relay error other broken")) << ada->story();
  EXPECT_TRUE(host->sees("relay error integration broken")) << host->story();
  EXPECT_TRUE(host->sees("without ada")) << host->story();
}

}  // namespace
}  // namespace kestrova::test
