#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

namespace kestrova::test {
namespace {

TEST(ListenTest, aHandleKeepsItsListenerForAsLongAsItLives) {
  TestPlatform platform;
  auto test = TestMeeting::joined(platform);
  auto heard = std::make_shared<RecordingListener>();
  const std::weak_ptr<RecordingListener> watch = heard;
  auto handle = test.meeting->listen(std::move(heard));
  ASSERT_FALSE(watch.expired());
  test.addPeer("bob");
  EXPECT_EQ(watch.lock()->count("onParticipantJoined"), 1);

  auto moved = std::move(handle);
  test.addPeer("eve");
  EXPECT_EQ(watch.lock()->count("onParticipantJoined"), 2);
  moved.remove();
  EXPECT_TRUE(watch.expired());
}

TEST(ListenTest, aHandleTakesAwayAListenerThatOthersKeep) {
  TestPlatform platform;
  auto test = TestMeeting::joined(platform);
  const auto heard = std::make_shared<RecordingListener>();
  { const auto handle = test.meeting->listen(heard); }
  test.addPeer("bob");
  EXPECT_FALSE(heard->has("onParticipantJoined"));
}

TEST(ListenTest, whatOneHandleLetsGoOfAnotherKeeps) {
  TestPlatform platform;
  auto test = TestMeeting::joined(platform);
  const auto heard = std::make_shared<RecordingListener>();
  const auto handle = test.meeting->listen(heard);
  { const auto other = test.meeting->listen(heard); }
  test.addPeer("bob");
  EXPECT_EQ(heard->count("onParticipantJoined"), 1);
  const auto added = std::make_shared<RecordingListener>();
  test.meeting->addEventListener(added);
  { const auto other = test.meeting->listen(added); }
  test.addPeer("eve");
  EXPECT_EQ(added->count("onParticipantJoined"), 1);
}

TEST(ListenTest, aHandleOfBeforeTakesNothingAwayFromOneOfSince) {
  TestPlatform platform;
  auto test = TestMeeting::joined(platform);
  const auto heard = std::make_shared<RecordingListener>();
  auto handle = test.meeting->listen(heard);
  test.meeting->removeAllEventListeners();
  handle = test.meeting->listen(heard);
  test.addPeer("bob");
  EXPECT_EQ(heard->count("onParticipantJoined"), 1);
}

TEST(ListenTest, functionsHearWhatTheirNamesSayAndMayGoFromInside) {
  TestPlatform platform;
  auto test = TestMeeting::joined(platform);
  std::vector<std::string> lines;
  ListenerHandle once;
  once = test.meeting->listen({.onParticipantJoined = [&](const auto& person) {
    lines.push_back("once " + person->id());
    once.remove();
  }});
  const auto handle = test.meeting->listen(
      {.onMeetingLeft = [&](LeaveReason reason) { lines.emplace_back(name(reason)); },
       .onParticipantJoined = [&](const auto& person) { lines.push_back(person->id()); },
       .onParticipantLeft =
           [&](const auto& person, LeaveReason reason) {
             lines.push_back(person->id() + " " + std::string(name(reason)));
           }});
  test.addPeer("bob");
  test.addPeer("eve");
  test.notify("peerClosed", {{"peerId", "bob"}, {"reason", {{"code", 1101}}}});
  test.meeting->leave();
  platform.pump();
  EXPECT_THAT(lines, testing::UnorderedElementsAre("once bob", "bob", "eve",
                                                   "bob manualLeaveCalled", "manualLeaveCalled"));
}

TEST(ListenTest, aDetachedListenerGoesWithWhatItListensTo) {
  TestPlatform platform;
  auto test = TestMeeting::joined(platform);
  const auto token = std::make_shared<int>();
  const auto bob = test.addPeer("bob");
  int streams = 0;
  // A circle, as such lambdas make it.
  bob->listen({.onStreamEnabled = [&streams, token, bob](const auto&, const auto&) { ++streams; }})
      .detach();
  test.meeting->listen({.onMeetingLeft = [token, meeting = test.meeting](LeaveReason) {}}).detach();
  test.announce("c1", "bob", "audio");
  EXPECT_EQ(streams, 1);
  test.notify("peerClosed", {{"peerId", "bob"}});
  EXPECT_EQ(token.use_count(), 2);
  test.meeting->leave();
  platform.pump();
  EXPECT_EQ(token.use_count(), 1);
}

}  // namespace
}  // namespace kestrova::test
