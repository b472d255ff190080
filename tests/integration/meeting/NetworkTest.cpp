#include <gmock/gmock.h>

#include "ChildAttendee.h"
#include "MeetingFixture.h"
#include "NetworkLab.h"
#include <future>
#include <iostream>
#include <thread>

namespace kestrova::test {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr double tone = ChildAttendee::toneHz;

/// In a network of the process's own; skips where that isn't permitted.
class NetworkTest : public testing::Test {
protected:
  static void SetUpTestSuite() { whyNot = NetworkLab::enter(); }
  void SetUp() override {
    if (!whyNot.empty()) GTEST_SKIP() << whyNot;
  }
  void TearDown() override {
    if (whyNot.empty()) NetworkLab::restore();
  }

  inline static std::string whyNot;
};

class Gathering : public MeetingFixture {
public:
  explicit Gathering(std::vector<std::string> serviceOptions = {})
      : MeetingFixture(std::move(serviceOptions)) {}
  void TestBody() override {}

  using MeetingFixture::joinSmall;
  using MeetingFixture::joinToWatch;
  using MeetingFixture::joinWithTone;
  using MeetingFixture::person;
  using MeetingFixture::service;
};

double secondsSince(Clock::time_point moment) {
  return std::chrono::duration<double>(Clock::now() - moment).count();
}

/// How long after `back` picture and sound come again; nothing if they don't.
struct Return {
  std::optional<double> picture;
  std::optional<double> sound;

  static Return watch(Attendee& me, Clock::time_point back, std::chrono::seconds limit) {
    const int pictures = me.picture->clocksRead;
    const int blocks = me.sound->loudBlocks;
    Return seen;
    me.waitUntil(
        [&] {
          if (!seen.picture && me.picture->clocksRead > pictures + 2)
            seen.picture = secondsSince(back);
          if (!seen.sound && me.sound->loudBlocks > blocks + 20) seen.sound = secondsSince(back);
          return seen.picture && seen.sound;
        },
        limit);
    return seen;
  }
};

void report(const std::string& what, double seconds) {
  std::cout << "    " << what << ": " << seconds << " s" << std::endl;
  std::string key = what;
  std::replace(key.begin(), key.end(), ' ', '_');
  testing::Test::RecordProperty(key, std::to_string(seconds));
}

struct Absence {
  std::chrono::seconds length;
  std::vector<std::string> serviceOptions;
  std::chrono::seconds limit;
};

/// Takes the network away from two people and gives it back.
void goWithoutNetwork(const Absence& absence, bool noticed) {
  Gathering place(absence.serviceOptions);
  const auto ada = place.joinSmall("ada", tone);
  const auto grace = place.joinSmall("grace", tone);
  ASSERT_TRUE(ada->getsMedia(tone) && grace->getsMedia(tone));

  NetworkLab::cut();
  const auto gone = Clock::now();
  if (noticed) {
    ASSERT_TRUE(ada->sees("state RECONNECTING")) << ada->story();
    report("noticed after", secondsSince(gone));
    // Once at the loss, and then every ten seconds.
    EXPECT_TRUE(ada->seesTimes("state RECONNECTING", 2)) << ada->story();
  }
  std::this_thread::sleep_until(gone + absence.length);
  EXPECT_EQ(ada->count("left"), 0) << ada->story();
  NetworkLab::restore();
  const auto back = Clock::now();

  auto second =
      std::async(std::launch::async, [&] { return Return::watch(*grace, back, absence.limit); });
  const auto first = Return::watch(*ada, back, absence.limit);
  for (const auto& [me, seen] : {std::pair(ada, first), std::pair(grace, second.get())}) {
    const auto id = me->meeting->localParticipant()->id();
    ASSERT_TRUE(seen.picture && seen.sound) << me->story();
    report(id + " picture after", *seen.picture);
    report(id + " sound after", *seen.sound);
    EXPECT_TRUE(me->getsMedia(tone)) << me->story();
    EXPECT_EQ(me->meeting->participants().size(), 1u) << me->story();
    EXPECT_EQ(me->count("joined") > 1, noticed) << me->story();
    EXPECT_EQ(me->count("state RECONNECTING") > 0, noticed) << me->story();
    EXPECT_EQ(me->count("error"), 0) << me->story();
  }
  const auto leaving = Clock::now();
  grace->leaveAndWait();
  ada->leaveAndWait();
  EXPECT_LT(secondsSince(leaving), 2);
}

TEST_F(NetworkTest, FiveSecondsWithoutANetworkAreOnlyAPause) {
  goWithoutNetwork({.length = 5s, .serviceOptions = {}, .limit = 15s}, false);
}

TEST_F(NetworkTest, TwentyFiveSecondsWithoutANetworkEndInAReturn) {
  goWithoutNetwork({.length = 25s,
                    .serviceOptions = {"--ping-interval", "3000", "--ping-timeout", "2000"},
                    .limit = 40s},
                   true);
}

TEST_F(NetworkTest, LossAndDelayLeaveAMovingPictureAndATone) {
  const Detour detour(100ms, 10);
  Gathering place(
      {"--media-address", Detour::nearAddress, "--announced-address", Detour::farAddress});
  const auto ada = place.joinSmall("ada", tone);
  const auto grace = place.joinSmall("grace", tone);
  ASSERT_TRUE(ada->getsPictures()) << ada->story();
  ASSERT_TRUE(grace->getsPictures()) << grace->story();

  constexpr int looks = 40;
  int moving[2] = {0, 0};
  int heard[2] = {0, 0};
  const std::shared_ptr<Attendee> people[] = {ada, grace};
  const int before[] = {ada->picture->clocksRead, grace->picture->clocksRead};
  const auto begin = Clock::now();
  for (int look = 1; look <= looks; ++look) {
    const int pictures[] = {ada->picture->clocksRead, grace->picture->clocksRead};
    std::this_thread::sleep_until(begin + look * 400ms);
    for (int i = 0; i < 2; ++i) {
      moving[i] += people[i]->picture->clocksRead >= pictures[i] + 2;
      heard[i] += people[i]->sound->presence(tone) >= 0.6;
    }
  }
  for (int i = 0; i < 2; ++i) {
    const double rate = (people[i]->picture->clocksRead - before[i]) / secondsSince(begin);
    std::cout << "    " << rate << " pictures a second, moving at " << moving[i] << " and heard at "
              << heard[i] << " of " << looks << " looks" << std::endl;
    EXPECT_GE(rate, 5) << people[i]->story();
    EXPECT_GE(moving[i], looks / 2);
    EXPECT_GE(heard[i], looks * 2 / 3);
    EXPECT_EQ(people[i]->count("state RECONNECTING"), 0) << people[i]->story();
  }
  std::cout << "    " << detour.carried() << " packets carried, " << detour.lost() << " lost\n";
  EXPECT_GT(detour.lost(), 100);
}

TEST_F(NetworkTest, ABottleneckIsToldAndSoIsItsEnd) {
  Detour detour(20ms, 0);
  Gathering place(
      {"--media-address", Detour::nearAddress, "--announced-address", Detour::farAddress});
  const auto ada = place.joinWithTone("ada", tone);
  const auto grace = place.joinToWatch("grace");
  ASSERT_TRUE(grace->getsPictures()) << grace->story();
  const auto full = [&] { return grace->picture->width >= 1280; };
  ASSERT_TRUE(grace->waitUntil(full)) << grace->story();

  detour.narrowTo(400);
  const auto begin = Clock::now();
  EXPECT_TRUE(ada->sees("quality BANDWIDTH DETECTED")) << ada->story();
  report("bandwidth told after", secondsSince(begin));
  EXPECT_TRUE(ada->sees("quality CONGESTION DETECTED")) << ada->story();
  report("congestion told after", secondsSince(begin));
  EXPECT_GT(ada->meeting->localParticipant()->getVideoStats()->size(), 0u);

  detour.narrowTo(0);
  const auto lifted = Clock::now();
  EXPECT_TRUE(ada->sees("quality CONGESTION RESOLVED")) << ada->story();
  EXPECT_TRUE(ada->sees("quality BANDWIDTH RESOLVED")) << ada->story();
  report("both over after", secondsSince(lifted));
}

TEST_F(NetworkTest, ThreeSecondsWithoutPacketsAreAFreezeThatResolves) {
  Gathering place;
  const auto ada = place.joinSmall("ada", tone);
  const auto grace = place.joinToWatch("grace");
  ASSERT_TRUE(grace->getsMedia(tone)) << grace->story();
  const auto camera = grace->stream("ada", MediaType::video);
  // The engine tells a freeze from what came before it.
  const auto runs = [&] { return camera->metrics().framesPerSecond > 20; };
  ASSERT_TRUE(grace->waitUntil(runs)) << grace->story();
  const auto freezes = camera->metrics().freezes;

  NetworkLab::cut();
  const auto stands = [&] { return camera->metrics().framesPerSecond == 0; };
  EXPECT_TRUE(grace->waitUntil(stands)) << "the present number, while the picture stands still";
  std::this_thread::sleep_for(1s);
  NetworkLab::restore();
  EXPECT_TRUE(grace->sees("stream FREEZE_DETECTED")) << grace->story();
  EXPECT_TRUE(grace->sees("stream FREEZE_RESOLVED")) << grace->story();
  // The engine counts a freeze when it is over, which the next look brings.
  const auto counted = [&] {
    return camera->metrics().freezes > freezes && camera->metrics().freezeSeconds > 1;
  };
  EXPECT_TRUE(grace->waitUntil(counted)) << camera->metrics().freezeSeconds << " s frozen";
  ada->leaveAndWait();
  EXPECT_TRUE(grace->seesTimes("stream ENDED", 2)) << grace->story();
}

TEST_F(NetworkTest, ClosingWithoutANetworkTakesLessThanTwoSeconds) {
  Gathering place;
  const auto token = place.service.token();
  auto ada = place.joinSmall("ada", tone);
  auto grace = place.joinSmall("grace", tone);
  ChildAttendee third(place.service.address(), token, "third");
  ASSERT_TRUE(ada->sees("with third"));
  ASSERT_TRUE(ada->getsPictures());
  NetworkLab::cut();
  std::this_thread::sleep_for(1s);

  auto begin = Clock::now();
  ada->meeting->leave();
  EXPECT_TRUE(ada->sees("left manual")) << ada->story();
  report("leave took", secondsSince(begin));
  EXPECT_LT(secondsSince(begin), 2);

  begin = Clock::now();
  grace->meeting.reset();
  report("letting go took", secondsSince(begin));
  EXPECT_LT(secondsSince(begin), 2);

  begin = Clock::now();
  EXPECT_EQ(third.returnFromMain(), 0);
  report("return from main took", secondsSince(begin));
  EXPECT_LT(secondsSince(begin), 2);
  NetworkLab::restore();  // the service ends its connections in order
}

TEST_F(NetworkTest, ANetworkThatGoesDuringTheJoinLeavesNothingHanging) {
  Gathering place;
  const auto token = place.service.token();
  // From before the configuration has been asked for to the middle of the media's set-up.
  for (const auto moment : {0ms, 30ms, 60ms, 120ms, 160ms, 200ms, 250ms, 300ms}) {
    const auto ada = std::make_shared<Attendee>();
    Kestrova::config(token);
    ada->meeting = Kestrova::initMeeting(place.person("ada"));
    ada->meeting->addEventListener(ada);
    ada->meeting->join();
    std::this_thread::sleep_for(moment);
    NetworkLab::cut();
    std::this_thread::sleep_for(100ms);
    const auto begin = Clock::now();
    ada->meeting->leave();  // refused before the join
    ada->meeting.reset();
    EXPECT_LT(secondsSince(begin), 2) << moment.count() << " ms";
    NetworkLab::restore();
  }
  const auto ada = place.joinSmall("ada", tone);
  const auto grace = place.joinSmall("grace", tone);
  EXPECT_TRUE(ada->getsMedia(tone)) << ada->story();
}

}  // namespace
}  // namespace kestrova::test
