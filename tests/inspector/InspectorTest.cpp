#include <kestrova/inspector/Inspector.h>
#include <kestrova/tracing/SdkTracer.h>

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <tests/support/TestMeeting.h>
#include <unistd.h>

#include "Browser.h"
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

namespace kestrova::test {
namespace {

class InspectorTest : public testing::Test {
protected:
  /// A page that is open, and what it was told first.
  struct Page {
    explicit Page(const Inspector& inspector)
        : browser(Browser::visiting(inspector.address(), "events")) {
      browser.readHead();
      snapshot = browser.nextEvent().data;
    }
    /// The text of the next mark of a kind.
    std::string mark(std::string_view kind) {
      for (;;) {
        const auto event = browser.awaitEvent("mark");
        if (event.name.empty()) return "the end";
        if (text(event.data, "kind", "") == kind) return text(event.data, "text", "");
      }
    }
    Dictionary next(std::string_view event) { return browser.awaitEvent(event).data; }

    Browser browser;
    Dictionary snapshot;
  };

  std::unique_ptr<Inspector> inspect(const TestMeeting& test) {
    auto inspector = std::make_unique<Inspector>(test.meeting);
    platform.pump();
    return inspector;
  }

  TestPlatform platform;
};

TEST_F(InspectorTest, ShowsAMeetingFromBeforeTheJoinToItsEnd) {
  TestMeeting test(platform);
  const auto inspector = inspect(test);
  Page page(*inspector);
  EXPECT_EQ(page.snapshot.at("format").as_string(), "kestrova-inspector");
  EXPECT_EQ(page.snapshot.at("meeting").at("id").as_string(), "room");
  EXPECT_EQ(page.snapshot.at("participants").at(0).at("name").as_string(), "Ada");
  EXPECT_TRUE(page.snapshot.at("participants").at(0).at("local").as_bool());

  test.lookUp();
  test.reachSocket();
  test.decide("allowed");
  EXPECT_EQ(page.mark("state"), "CONNECTED");
  EXPECT_EQ(page.mark("participant"), "Ada joined");

  test.addPeer("bob");
  EXPECT_EQ(page.next("participant").at("id").as_string(), "bob");
  EXPECT_EQ(page.mark("participant"), "bob joined");
  test.announce("c1", "bob", "video");
  const auto started = page.next("stream");
  EXPECT_EQ(started.at("participantId").as_string(), "bob");
  EXPECT_EQ(started.at("stream").at("kind").as_string(), "video");
  EXPECT_FALSE(started.at("stream").as_object().contains("samples"));
  test.announce("c2", "bob", "audio", true);
  EXPECT_EQ(page.next("stream").at("stream").at("kind").as_string(), "shareAudio");

  // A page that opens late sees who is there.
  const auto late = Page(*inspector).snapshot;
  EXPECT_EQ(late.at("meeting").at("state").as_string(), "CONNECTED");
  EXPECT_EQ(late.at("participants").at(1).at("streams").as_array().size(), 2U);

  test.notify("peerClosed", {{"peerId", "bob"}});
  EXPECT_TRUE(page.mark("participant").starts_with("bob left"));
  test.meeting->leave();
  platform.advance(std::chrono::seconds(5));
  EXPECT_TRUE(page.mark("participant").starts_with("Ada left: "));
  EXPECT_EQ(page.mark("state"), "DISCONNECTED");
  const auto after = Page(*inspector).snapshot;
  EXPECT_EQ(after.at("meeting").at("state").as_string(), "DISCONNECTED");
  EXPECT_FALSE(after.at("participants").at(0).at("leftAt").is_null());
}

TEST_F(InspectorTest, OfAMeetingThatRunsItTakesInWhatIsThere) {
  auto test = TestMeeting::joined(platform);
  test.addPeer("bob");
  test.announce("c1", "bob", "video");
  const auto inspector = inspect(test);
  const auto seen = Page(*inspector).snapshot;
  EXPECT_EQ(seen.at("participants").as_array().size(), 2U);
  EXPECT_EQ(seen.at("participants").at(1).at("streams").at(0).at("id").as_string(), "c1");
}

TEST_F(InspectorTest, ADropIsAStateAndWhoStaysIsNotToldTwice) {
  auto test = TestMeeting::joined(platform);
  test.addPeer("bob");
  const auto inspector = inspect(test);
  Page page(*inspector);
  test.socket().drop();
  platform.advance(std::chrono::seconds(25));
  EXPECT_EQ(page.mark("state"), "RECONNECTING");
  test.meeting.reset();
  platform.advance(std::chrono::seconds(5));
  EXPECT_EQ(page.mark("state"), "DISCONNECTED") << "and not RECONNECTING again";
}

TEST_F(InspectorTest, ItHoldsNeitherTheMeetingNorIsHeldByIt) {
  auto test = TestMeeting::joined(platform);
  const auto bob = test.addPeer("bob");
  test.announce("c1", "bob", "video");
  auto inspector = inspect(test);
  Page page(*inspector);
  inspector.reset();
  EXPECT_EQ(page.mark("state"), "the end");
  test.announce("c2", "bob", "audio");
  test.notify("peerClosed", {{"peerId", "bob"}});

  inspector = inspect(test);
  const std::weak_ptr<Meeting> watched = test.meeting;
  test.meeting.reset();
  EXPECT_TRUE(watched.expired());
  platform.advance(std::chrono::seconds(5));
  // One that is made of a meeting that went before anything was seen of it shows nothing.
  TestMeeting brief(platform);
  Inspector early(brief.meeting);
  brief.meeting.reset();
  platform.pump();
  EXPECT_EQ(Page(early).snapshot.at("participants").as_array().size(), 0U);
}

TEST_F(InspectorTest, MarksWhatChangesAndFails) {
  TestMeeting test(platform);
  const auto inspector = inspect(test);
  Page page(*inspector);
  test.meeting->unmuteMic();  // before the join
  platform.pump();
  const auto error = page.next("mark");
  EXPECT_EQ(error.at("kind").as_string(), "error");
  EXPECT_EQ(error.at("code").as_int64(), test.listener->errors.at(0).rawValue());

  test.lookUp();
  test.reachSocket();
  test.decide("allowed");
  test.addPeer("bob");
  test.announce("c1", "bob", "video");
  EXPECT_EQ(page.mark("stream"), "video started");
  test.notify(
      "consumerPausedSubManager",
      {{"peerId", "bob"}, {"kind", "video"}, {"reason", "offscreen"}, {"consumerId", "c1"}});
  EXPECT_EQ(page.mark("stream"), "video paused: offscreen");
  test.notify("consumerResumed", {{"consumerId", "c1"}});
  test.notify("participantModeChanged", {{"peerId", "bob"}, {"mode", "RECV_ONLY"}});
  test.notify("consumerClosed", {{"consumerId", "c1"}});
  platform.advance(std::chrono::milliseconds(100));
  const auto ended = page.next("stream").at("stream").as_object();
  EXPECT_EQ(ended.at("state").as_string(), "ENDED");
  EXPECT_EQ(page.mark("stream"), "video ended");
}

TEST_F(InspectorTest, CharactersAreAmongTheParticipants) {
  auto test = TestMeeting::joined(platform);
  test.notify("addCharacter", {{"id", "aida"}, {"displayName", "Aida"}});
  const auto inspector = inspect(test);
  Page page(*inspector);
  EXPECT_EQ(page.snapshot.at("participants").at(1).at("name").as_string(), "Aida");
  test.announce("c1", "aida", "audio");
  EXPECT_EQ(page.next("stream").at("participantId").as_string(), "aida");
  test.notify("addCharacter", {{"id", "bert"}, {"displayName", "Bert"}});
  EXPECT_EQ(page.mark("participant"), "Bert joined");
  test.notify("removeCharacter", {{"id", "aida"}});
  EXPECT_TRUE(page.mark("participant").starts_with("Aida left"));
}

TEST_F(InspectorTest, TheNumbersOfATickComeTogether) {
  auto test = TestMeeting::joined(platform);
  const auto bob = test.addPeer("bob");
  test.announce("c1", "bob", "video");
  test.announce("c2", "bob", "audio");
  const auto frames = std::make_shared<int>(0);
  const auto trackOf = [&](const char* id) { return bob->streams().at(id)->track()->id(); };
  platform.media->stats = [frames, seen = trackOf("c1"),
                           heard = trackOf("c2")](const std::string&) -> Task<std::string> {
    const auto inbound = [&](const char* kind, const std::string& track, Dictionary more) {
      more["type"] = "inbound-rtp";
      more["id"] = std::string("I-") + kind;
      more["ssrc"] = kind[0];
      more["kind"] = kind;
      more["trackIdentifier"] = track;
      more["packetsReceived"] = *frames;
      return more;
    };
    const List all{inbound("video", seen, {{"framesDecoded", *frames}, {"frameWidth", 1280}}),
                   inbound("audio", heard, {{"audioLevel", 0.5}})};
    co_return boost::json::serialize(all);
  };
  const auto inspector = inspect(test);
  Page page(*inspector);
  std::size_t looks = 0;
  const auto picture = bob->streams().at("c1");
  const auto counting = picture->onMetrics([&looks](const StreamMetrics&) { ++looks; });
  for (; *frames <= 120; *frames += 60) platform.advance(std::chrono::seconds(2));

  Dictionary samples;
  do samples = page.next("samples");
  while (samples.at("streams").at("c1").at(1) != 30);
  EXPECT_GE(samples.at("t").as_int64(), platform.clock->wallClockMs() - 2000);
  EXPECT_EQ(samples.at("streams").at("c1").at(2), 1280);
  EXPECT_EQ(samples.at("streams").at("c2").at(7), 0.5);
  EXPECT_TRUE(samples.at("streams").at("c2").at(1).is_null()) << "sound has no pictures";
  const auto late = Page(*inspector).snapshot.at("participants").at(1).at("streams");
  EXPECT_GE(looks, 2U);
  EXPECT_EQ(late.at(0).at("samples").as_array().size(), looks);
  picture->offMetrics(counting);
}

TEST_F(InspectorTest, TheTraceComesWithItsSpansAndWithoutSecrets) {
  auto test = TestMeeting::joined(platform);
  const auto inspector = inspect(test);
  Page page(*inspector);
  Dictionary running;
  {
    const auto span = startSpan("Outer", {.attributes = {{"token", "eyJhbGci.secret.x"}}});
    traceEvent("Inner", {.attributes = {{"token", "eyJhbGci.secret.x"}, {"kind", "video"}},
                         .parentScope = span,
                         .category = EventCategory::telemetry});
    running = page.next("span");
    EXPECT_EQ(running.at("name").as_string(), "Outer");
    EXPECT_TRUE(running.at("durationMs").is_null());
    const auto event = page.next("event");
    EXPECT_EQ(event.at("parentId"), running.at("id"));
    EXPECT_EQ(event.at("category").as_string(), "TELEMETRY");
    EXPECT_EQ(event.at("attributes").at("kind").as_string(), "video");
    EXPECT_EQ(boost::json::serialize(event).find("secret"), std::string::npos);
    endSpan(span, {.success = false, .message = "no"});
  }
  const auto ended = page.next("span");
  EXPECT_EQ(ended.at("id"), running.at("id"));
  EXPECT_FALSE(ended.at("success").as_bool());
  EXPECT_EQ(ended.at("message").as_string(), "no");
  const auto late = boost::json::serialize(Page(*inspector).snapshot);
  EXPECT_NE(late.find("\"Outer\""), std::string::npos);
  EXPECT_EQ(late.find("secret"), std::string::npos);
}

TEST_F(InspectorTest, AChildThatEndsLeavesThePagesToItsParent) {
  auto test = TestMeeting::joined(platform);
  auto inspector = inspect(test);
  Page page(*inspector);
  const auto child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::alarm(30);  // ends it by a signal, should it wait for a thread that it doesn't have
    inspector.reset();
    ::_exit(0);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  test.addPeer("bob");
  EXPECT_EQ(page.mark("participant"), "bob joined");
  EXPECT_EQ(Page(*inspector).snapshot.at("participants").as_array().size(), 2U);
}

TEST_F(InspectorTest, EndsWhileThreadsTrace) {
  TestMeeting test(platform);
  const std::jthread tracer([](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      traceEvent("Line", {.category = EventCategory::telemetry});
      std::this_thread::sleep_for(std::chrono::microseconds(100));  // no more than a page can read
    }
  });
  for (int i = 0; i < 5; ++i) {
    const auto inspector = inspect(test);
    Browser half(portOf(inspector->address()));
    half.send("GET ");
    Page(*inspector).next("event");
  }
}

TEST_F(InspectorTest, EndsInTimeThoughAPageHasNotReadWhatItWasTold) {
  TestMeeting test(platform);
  auto inspector = inspect(test);
  Page quick(*inspector);
  // More than the system takes in for a page that doesn't read.
  const std::string text(1900, 'x');
  for (int i = 0; i < 4500; ++i) {
    traceEvent("Line", {.attributes = {{"text", text}}, .category = EventCategory::telemetry});
    if (i % 100 == 0) quick.next("event");
  }
  auto silent = Browser::visiting(inspector->address(), "events", 4096);
  silent.readHead();
  const auto start = std::chrono::steady_clock::now();
  inspector.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  EXPECT_THROW(silent.nextEvent(), std::runtime_error) << "cut in the middle";
}

}  // namespace
}  // namespace kestrova::test
