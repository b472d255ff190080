#include <kestrova/media/BroadcastCapturer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestPlatform.h>

namespace kestrova::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class BroadcastTest : public testing::Test {
protected:
  ScriptedSockets& sockets() { return *platform.screen->scriptedSockets; }
  std::shared_ptr<ScriptedVideoSource> source() { return platform.factory->screenSource.lock(); }
  template <class Capturer = BroadcastCapturer>
  std::shared_ptr<RTCVideoTrack> create(const std::shared_ptr<Capturer>& capturer) {
    return platform.run(capturer->createBroadcastTrack());
  }
  TestPlatform platform;
};

/// Hears what becomes of a connection, and nothing else.
class Silent final : public StreamDelegate {
public:
  void stream(InputStream&, StreamEvent, const char*) override {}
};

TEST_F(BroadcastTest, picturesOfTheSenderReachTheTrackUntilItEnds) {
  const auto capturer = BroadcastCapturer::make();
  int ends = 0;
  capturer->onEnded([&] { ++ends; });
  const auto track = create(capturer);
  ASSERT_TRUE(track);
  EXPECT_EQ(track->id(), "ARDAMSb0");
  EXPECT_TRUE(track->isEnabled());
  EXPECT_THAT(sockets().files, ElementsAre("/run/kestrova/rtc_SSFD"));
  EXPECT_TRUE(platform.journal.has("listen 10"));
  const int sender = sockets().connect();
  EXPECT_TRUE(platform.traces.has("Server Stream opened successfully"));
  sockets().send(sender, frameOf("pictureA", 8, 6, 6));
  ASSERT_EQ(source()->frames, 1);
  EXPECT_EQ(source()->last.buffer->bgra().width, 8);
  EXPECT_EQ(source()->last.rotation, 0);  // whatever the frame says
  EXPECT_EQ(create(capturer), track);     // it runs already

  EXPECT_EQ(sockets().connect(), -1);  // while another one is there
  sockets().send(sender, frameOf("pictureB"));
  EXPECT_EQ(source()->frames, 2);
  sockets().hangUp(sender);
  EXPECT_EQ(ends, 1);
  EXPECT_FALSE(capturer->isBroadcasting());
  EXPECT_THAT(sockets().open, IsEmpty());
  EXPECT_THAT(sockets().files, IsEmpty());
  EXPECT_NE(create(capturer), track);  // a new broadcast
}

TEST_F(BroadcastTest, aStillScreenIsShownAgainAndOnceItIsRemovedNoMore) {
  const auto capturer = BroadcastCapturer::make();
  const auto track = create(capturer);
  const int sender = sockets().connect();
  sockets().beQuiet();
  const auto shown = source();
  EXPECT_EQ(shown->frames, 0);  // there is nothing to show yet
  sockets().send(sender, frameOf("pictureA"));
  const auto first = shown->last.timestampUs;
  platform.advance(std::chrono::milliseconds(250));
  sockets().beQuiet();
  sockets().beQuiet();
  EXPECT_EQ(shown->frames, 3);
  EXPECT_EQ(shown->last.timestampUs - first, 250'000);
  capturer->removeBroadcastTrack(track);
  EXPECT_FALSE(track->isEnabled());
  sockets().beQuiet();
  sockets().send(sender, frameOf("pictureB"));
  EXPECT_EQ(shown->frames, 3);
  EXPECT_THAT(sockets().open, IsEmpty());
}

TEST_F(BroadcastTest, anotherTrackThanTheOneThatIsMeantStays) {
  const auto capturer = BroadcastCapturer::make();
  const auto first = create(capturer);
  capturer->removeBroadcastTrack();
  const auto second = create(capturer);
  capturer->removeBroadcastTrack(first);
  EXPECT_TRUE(second->isEnabled());
  EXPECT_TRUE(capturer->isBroadcasting());
}

TEST_F(BroadcastTest, whateverFailsThereIsATrackWithoutPictures) {
  struct Case {
    const char* what;
    std::function<void(ScriptedScreen&)> spoil;
    const char* line;
  };
  const Case cases[] = {
      {"no group", [](auto& s) { s.config.appGroupIdentifier = ""; },
       "Failed to get app group identifier or file path for screen share"},
      {"no folder", [](auto& s) { s.hasContainers = false; },
       "Failed to get app group identifier or file path for screen share"},
      {"no sockets", [](auto& s) { s.scriptedSockets->hasSockets = false; },
       "Failed to create broadcast for screen share"},
      {"no bind", [](auto& s) { s.scriptedSockets->bindWorks = false; }, ""},
      {"no listen", [](auto& s) { s.scriptedSockets->listenWorks = false; }, ""},
      {"long path", [](auto& s) { s.config.appGroupIdentifier = std::string(200, 'g'); }, ""},
  };
  for (const auto& each : cases) {
    TestPlatform fresh;
    each.spoil(*fresh.screen);
    const auto capturer = BroadcastCapturer::make();
    EXPECT_TRUE(fresh.run(capturer->createBroadcastTrack())) << each.what;
    EXPECT_FALSE(capturer->isBroadcasting()) << each.what;
    EXPECT_TRUE(!*each.line || fresh.traces.count(each.line) == 1) << each.what;
    EXPECT_THAT(fresh.screen->scriptedSockets->open, IsEmpty()) << each.what;
    EXPECT_THAT(fresh.screen->scriptedSockets->files, IsEmpty()) << each.what;
  }
}

TEST_F(BroadcastTest, aPathHasItsLimits) {
  const auto listener = std::make_shared<Silent>();
  const auto opens = [&](std::size_t length, const BridgeRules& rules) {
    const auto connection = BroadcastSocketConnection::make(
        "/" + std::string(length - 1, 'p'), listener, platform.screen->scriptedSockets, rules);
    return connection->open();
  };
  EXPECT_TRUE(opens(103, mainBridge));
  EXPECT_FALSE(opens(104, mainBridge));  // it is taken, and doesn't fit into an address
  EXPECT_FALSE(opens(105, mainBridge));
  EXPECT_THAT(sockets().files, IsEmpty());
  EXPECT_FALSE(platform.traces.has("failure: path too long"));
  EXPECT_FALSE(opens(105, olderBridge));
  EXPECT_TRUE(platform.traces.has("failure: path too long"));
  EXPECT_FALSE(BroadcastSocketConnection::make("", listener, platform.screen->scriptedSockets));
}

TEST_F(BroadcastTest, aSocketThatIsSomebodyElsesByNowStays) {
  const auto listener = std::make_shared<Silent>();
  const auto make = [&] {
    return BroadcastSocketConnection::make("/here", listener, platform.screen->scriptedSockets);
  };
  const auto first = make();
  const auto second = make();
  ASSERT_TRUE(first->open() && second->open());
  first->close();
  EXPECT_THAT(sockets().files, ElementsAre("/here"));
  second->close();
  EXPECT_THAT(sockets().files, IsEmpty());
}

TEST_F(BroadcastTest, theOlderBridgeTurnsPicturesAndTellsMore) {
  const auto capturer = iOSBroadcastScreenCapturer::make();
  create(capturer);
  const int sender = sockets().connect();
  platform.advance(std::chrono::seconds(5));
  sockets().send(sender, frameOf("pictureA", 4, 2, 6));
  EXPECT_EQ(source()->last.rotation, 270);
  EXPECT_EQ(source()->last.timestampUs, 0);
  platform.advance(std::chrono::milliseconds(40));
  sockets().send(sender, frameOf("pictureB", 4, 2, 3));
  EXPECT_EQ(source()->last.rotation, 180);
  EXPECT_EQ(source()->last.timestampUs, 40'000);
  sockets().fail(sender, "broken");
  EXPECT_TRUE(platform.traces.has("server stream open completed"));
  EXPECT_TRUE(platform.traces.has("error reading bytes from stream"));
  EXPECT_TRUE(platform.traces.has("server stream error encountered: broken"));
  EXPECT_FALSE(capturer->isBroadcasting());

  platform.screen->scriptedSockets->bindWorks = false;
  create(capturer);
  EXPECT_TRUE(platform.traces.has("failure: socket binding"));
}

}  // namespace
}  // namespace kestrova::test
