#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

#include <optional>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* started = "kestrova.flutter.startScreenShare";
constexpr const char* stopped = "kestrova.flutter.stopScreenShare";
constexpr const char* disabledLine = "Screen share disabled successfully";

class ScreenShareTest : public testing::Test {
public:
  ScriptedService& service() { return *platform.service; }
  ScriptedScreen& screen() { return *platform.screen; }
  ScriptedSockets& sockets() { return *platform.screen->scriptedSockets; }
  Meeting& meeting() { return *test->meeting; }
  std::shared_ptr<Participant> me() { return test->meeting->localParticipant(); }

  void join(InitMeetingOptions options = {}) {
    test.emplace(TestMeeting::joined(platform, std::move(options)));
    test->listener->take();
    service().forgetRequests();
  }
  void notify(const char* name) {
    screen().notify(name);
    platform.pump();
  }
  /// Up to the pictures of the program. \returns its connection
  int share() {
    meeting().enableScreenShare();
    platform.pump();
    notify(started);
    return sockets().connect();
  }
  bool isShared() {
    const auto streams = me()->streams();
    return streams.size() == 1 && streams.begin()->second->kind() == MediaType::share;
  }
  void expectNothingLeft() {
    EXPECT_THAT(me()->streams(), IsEmpty());
    expectNothingRuns();
  }
  void expectNothingRuns() {
    EXPECT_EQ(screen().programsRunning, 0);
    EXPECT_EQ(screen().observers(), 0);
    EXPECT_THAT(sockets().open, IsEmpty());
    EXPECT_THAT(sockets().files, IsEmpty());
    EXPECT_TRUE(platform.journal.has("container.remove kestrova-own"));
  }

  TestPlatform platform;
  std::optional<TestMeeting> test;
};

TEST_F(ScreenShareTest, aShareGoesFromTheProgramToTheServiceAndBack) {
  join();
  meeting().enableScreenShare();
  platform.pump();
  EXPECT_TRUE(platform.journal.has("picker sender kestrova-own"));
  EXPECT_EQ(service().count("produce"), 0);  // until the program says that it begins
  notify(started);
  notify(started);  // as it does until it is taken
  EXPECT_EQ(service().count("produce"), 1);
  ASSERT_TRUE(isShared());
  const auto& options = platform.media->published.back();
  EXPECT_THAT(options.encodings, IsEmpty());
  EXPECT_EQ(options.codecOptions + options.codec, "");
  EXPECT_EQ(options.appData, R"({"share":true})");
  const int sender = sockets().connect();
  sockets().send(sender, frameOf("pictureA"));
  EXPECT_EQ(platform.factory->screenSource.lock()->frames, 1);

  meeting().disableScreenShare();
  platform.pump();
  EXPECT_EQ(service().count("closeProducer"), 1);
  expectNothingLeft();
  EXPECT_FALSE(test->listener->has("onError"));
  const auto lines = platform.traces.texts();
  std::vector<std::string> told;
  for (const auto& line : lines)
    for (const char* known :
         {"Creating Screenshare Track", "Screenshare Track Generated",
          "Starting Screen Share Stream transmission",
          "Screen share transmission started successfully",
          "ScreenShare Stream transmission stopped successfully", "Disposing Screenshare Track",
          "Screenshare track disposed successfully", "Emitting STREAM_DISABLED Event",
          disabledLine})
      if (line == known) told.push_back(line);
  EXPECT_THAT(told,
              ElementsAre("Creating Screenshare Track", "Screenshare Track Generated",
                          "Starting Screen Share Stream transmission",
                          "Screen share transmission started successfully",
                          "ScreenShare Stream transmission stopped successfully",
                          "Disposing Screenshare Track", "Screenshare track disposed successfully",
                          "Emitting STREAM_DISABLED Event", disabledLine));
}

TEST_F(ScreenShareTest, itEndsWithItsProgramHoweverThatEnds) {
  struct Case {
    const char* what;
    std::function<void(ScreenShareTest&, int)> end;
    const char* line;
  };
  const Case cases[] = {
      {"says so", [](auto& t, int) { t.screen().notify(stopped); }, disabledLine},
      {"exits", [](auto& t, int) { t.screen().endProgram(); }, disabledLine},
      {"is killed",
       [](auto& t, int) {
         t.screen().endProgram({.kind = BroadcastEnd::Kind::failed, .cause = "signal"});
       },
       "The program that sends the screen failed"},
      {"hangs up", [](auto& t, int sender) { t.sockets().hangUp(sender); }, disabledLine},
      {"breaks off", [](auto& t, int sender) { t.sockets().fail(sender, "reset"); },
       "Server Stream error encountered: reset"},
  };
  join();
  for (const auto& each : cases) {
    const int sender = share();
    ASSERT_TRUE(isShared()) << each.what;
    platform.traces.clear();
    each.end(*this, sender);
    platform.pump();
    EXPECT_EQ(platform.traces.count(disabledLine), 1) << each.what;
    EXPECT_TRUE(platform.traces.has(each.line)) << each.what;
    expectNothingLeft();
  }
  EXPECT_FALSE(test->listener->has("onError"));
}

TEST_F(ScreenShareTest, whatKeepsItFromBeginningIsReported) {
  struct Case {
    const char* error;
    const char* cause;
    std::function<void(ScreenShareTest&)> spoil;
  };
  const Case cases[] = {
      {"onError 3061 ERROR_SCREENSHARE_PRODUCE_FAILED", "there is no program sender",
       [](auto& t) { t.screen().hasProgram = false; }},
      {"onError 3061 ERROR_SCREENSHARE_PRODUCE_FAILED",
       "there is no folder of this user alone to meet in",
       [](auto& t) { t.screen().hasContainers = false; }},
      {"onError 3061 ERROR_SCREENSHARE_PRODUCE_FAILED",
       "there is no folder of this user alone to meet in",
       [](auto& t) { t.screen().canObserve = false; }},
      {"onError 3061 ERROR_SCREENSHARE_PRODUCE_FAILED", "no display",
       [](auto& t) {
         t.meeting().enableScreenShare();
         t.platform.pump();
         t.screen().endProgram({.kind = BroadcastEnd::Kind::failed, .cause = "no display"});
       }},
      {"onError 3061 ERROR_SCREENSHARE_PRODUCE_FAILED", "last words",
       [](auto& t) {
         t.meeting().enableScreenShare();
         t.platform.pump();
         t.screen().endProgram({.kind = BroadcastEnd::Kind::unknown, .cause = "last words"});
       }},
      {"onError 3016 ERROR_GET_DISPLAY_MEDIA_PERMISSION_DENIED", "the user said no",
       [](auto& t) {
         t.meeting().enableScreenShare();
         t.platform.pump();
         t.screen().endProgram({.kind = BroadcastEnd::Kind::refused, .cause = "the user said no"});
       }},
      {"onError 3061 ERROR_SCREENSHARE_PRODUCE_FAILED", "",
       [](auto& t) { t.service().refuse("produce"); }},
  };
  for (const auto& each : cases) {
    screen().hasProgram = screen().hasContainers = screen().canObserve = true;
    join();
    each.spoil(*this);
    meeting().enableScreenShare();
    platform.pump();
    notify(started);
    ASSERT_TRUE(test->listener->has(each.error)) << each.error << each.cause;
    EXPECT_EQ(test->listener->errors.back().cause(), each.cause);
    test.reset();
    platform.pump();
    EXPECT_EQ(screen().programsRunning, 0);
    EXPECT_THAT(sockets().open, IsEmpty());
  }
}

TEST_F(ScreenShareTest, offCountsFromTheMomentItIsAskedFor) {
  join();
  meeting().enableScreenShare();
  meeting().disableScreenShare();
  platform.pump();
  EXPECT_FALSE(platform.journal.has("picker"));
  // While it is being published.
  service().withhold("produce");
  meeting().enableScreenShare();
  platform.pump();
  notify(started);
  meeting().disableScreenShare();
  EXPECT_EQ(screen().programsRunning, 0);  // whatever the service takes to answer
  meeting().enableScreenShare();
  meeting().enableScreenShare();
  EXPECT_TRUE(
      platform.traces.has("Error in enableScreenShare() -> Screen share is already enabled."));
  service().answerLate("produce", ScriptedService::ok({{"id", "first"}}));
  platform.pump();
  EXPECT_THAT(me()->streams(), IsEmpty());
  EXPECT_EQ(screen().programsRunning, 1);  // the second one's
  notify(started);
  service().answerLate("produce", ScriptedService::ok({{"id", "second"}}));
  platform.pump();
  EXPECT_TRUE(isShared());
  meeting().disableScreenShare();
  platform.pump();
  expectNothingLeft();
  platform.traces.clear();
  meeting().disableScreenShare();
  platform.pump();
  EXPECT_TRUE(platform.traces.has(
      "Attempted to call disableScreenShare() while screenshare is already disabled"));
  EXPECT_FALSE(test->listener->has("onError"));
}

TEST_F(ScreenShareTest, aFailureIsTracedThoughTheConnectionEndedFirst) {
  join();
  const int sender = share();
  sockets().hangUp(sender);
  screen().endProgram({.kind = BroadcastEnd::Kind::failed, .cause = "no memory"});
  platform.pump();
  EXPECT_TRUE(platform.traces.has("The program that sends the screen failed"));
  EXPECT_FALSE(test->listener->has("onError"));
  expectNothingLeft();
}

TEST_F(ScreenShareTest, aReturnPublishesTheSameBroadcastAgain) {
  join();
  const int sender = share();
  const auto before = me()->streams().begin()->first;
  test->socket().drop();
  platform.pump();
  sockets().send(sender, frameOf("pictureA"));  // goes on meanwhile
  platform.advance(2s);
  service().forgetRequests();
  test->reachSocket();
  test->decide("allowed");
  platform.advance(1s);
  ASSERT_TRUE(isShared());
  EXPECT_NE(me()->streams().begin()->first, before);
  EXPECT_EQ(service().count("produce"), 1);
  EXPECT_EQ(platform.journal.count("picker"), 1);
  sockets().send(sender, frameOf("pictureB"));
  EXPECT_EQ(platform.factory->screenSource.lock()->frames, 2);
  meeting().disableScreenShare();
  platform.pump();
  expectNothingLeft();
}

TEST_F(ScreenShareTest, aProgramThatBeginsWhileTheConnectionIsAwayIsPublishedByTheReturn) {
  join();
  meeting().enableScreenShare();
  platform.pump();
  test->socket().drop();
  platform.pump();
  notify(started);
  EXPECT_THAT(me()->streams(), IsEmpty());
  platform.advance(2s);
  test->reachSocket();
  test->decide("allowed");
  platform.advance(1s);
  EXPECT_TRUE(isShared());
  EXPECT_FALSE(test->listener->has("onError"));
}

TEST_F(ScreenShareTest, nothingOutlivesTheMeeting) {
  join();
  share();
  meeting().leave();
  platform.advance(5s);
  expectNothingRuns();
  test.reset();
  platform.journal.clear();

  join();
  share();
  test.reset();  // let go of, without a word
  platform.advance(5s);
  EXPECT_EQ(screen().programsRunning, 0);
  EXPECT_EQ(screen().observers(), 0);
  EXPECT_THAT(sockets().open, IsEmpty());
}

TEST_F(ScreenShareTest, aReturnThatIsRefusedEndsIt) {
  join();
  share();
  test->socket().drop();
  platform.advance(2s);
  EXPECT_EQ(screen().programsRunning, 1);
  service().refuse("requestEntry", 4005, "full");
  test->reachSocket();
  platform.pump();
  ASSERT_EQ(meeting().meetingState(), MeetingState::FAILED);
  expectNothingRuns();
}

TEST_F(ScreenShareTest, nobodyIsAskedInAModeWithoutSending) {
  join({.mode = Mode::RECV_ONLY});
  meeting().enableScreenShare();
  platform.pump();
  EXPECT_FALSE(platform.journal.has("picker"));
  ASSERT_TRUE(test->listener->has("onError 3061 ERROR_SCREENSHARE_PRODUCE_FAILED"));
  EXPECT_EQ(test->listener->errors.back().cause(), "the mode does not send");
}

TEST_F(ScreenShareTest, aModeWithoutSendingEndsIt) {
  join();
  share();
  meeting().changeMode(Mode::RECV_ONLY);
  platform.pump();
  expectNothingLeft();
  EXPECT_TRUE(platform.traces.has("Disabling Screen Share"));
  meeting().changeMode(Mode::SEND_AND_RECV);
  platform.pump();
  EXPECT_THAT(me()->streams(), IsEmpty());
}

TEST_F(ScreenShareTest, oneThatIsStartedByHandMeetsInTheDeclaredGroup) {
  screen().config.screenSharingExtension = "";
  join();
  const int sender = share();
  EXPECT_FALSE(platform.journal.has("picker"));
  EXPECT_THAT(sockets().files, ElementsAre("/run/kestrova/rtc_SSFD"));
  ASSERT_TRUE(isShared());
  sockets().hangUp(sender);
  platform.pump();
  EXPECT_THAT(me()->streams(), IsEmpty());
  EXPECT_EQ(screen().observers(), 0);
}

TEST_F(ScreenShareTest, theGuardRefusesOutsideOfAMeeting) {
  test.emplace(platform);
  meeting().enableScreenShare();
  meeting().disableScreenShare();
  platform.pump();
  EXPECT_TRUE(test->listener->has("onError 3035 ERROR_ACTION_PERFORMED_BEFORE_MEETING_JOINED"));
  EXPECT_FALSE(platform.journal.has("picker"));
}

}  // namespace
}  // namespace kestrova::test
