#include <kestrova/inspector/Inspector.h>

#include <gmock/gmock.h>
#include <tests/support/TestMeeting.h>

#include "Browser.h"
#include <memory>
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
  EXPECT_EQ(page.mark("state"), "JOINED");

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
  EXPECT_EQ(late.at("meeting").at("state").as_string(), "JOINED");
  EXPECT_EQ(late.at("participants").at(1).at("streams").as_array().size(), 2U);

  test.notify("peerClosed", {{"peerId", "bob"}});
  EXPECT_TRUE(page.mark("participant").starts_with("bob left"));
  test.meeting->leave();
  platform.advance(std::chrono::seconds(5));
  EXPECT_TRUE(page.mark("state").starts_with("LEFT"));
  const auto after = Page(*inspector).snapshot;
  EXPECT_EQ(after.at("meeting").at("state").as_string(), "LEFT");
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
  EXPECT_TRUE(page.mark("state").starts_with("LEFT")) << "and not RECONNECTING again";
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

TEST_F(InspectorTest, EndsInTimeWhateverItsPagesDo) {
  TestMeeting test(platform);
  const auto inspector = inspect(test);
  // Of those who read nothing and say half, and nobody who asks ever gets anything twice.
  Browser silent = Browser::visiting(inspector->address(), "events", 4096);
  Browser half(portOf(inspector->address()));
  half.send("GET ");
  for (int i = 0; i < 50; ++i) {
    const auto another = inspect(test);
    Page page(*another);
  }
}

}  // namespace
}  // namespace kestrova::test
