#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class ParticipantsTest : public testing::Test {
protected:
  std::shared_ptr<RecordingParticipantListener> listenTo(Participant& participant) {
    auto ear = std::make_shared<RecordingParticipantListener>();
    participant.addEventListener(ear);
    return ear;
  }
  TestPlatform platform;
  TestMeeting test = TestMeeting::joined(platform);
};

TEST_F(ParticipantsTest, aSecondArrivalKeepsThePersonButIsTold) {
  const auto first = test.addPeer("bob");
  const auto second = test.addPeer("bob", {{"displayName", "Impostor"}});
  EXPECT_EQ(first, second);
  EXPECT_EQ(second->displayName(), "bob");
  EXPECT_EQ(test.listener->count("onParticipantJoined bob"), 2);
  EXPECT_EQ(test.listener->joined.back(), first);
}

TEST_F(ParticipantsTest, agentsAreToldByTheirMarker) {
  const auto plain = test.addPeer("bob");
  const auto agent = test.addPeer("bot", {{"metaData", {{"agent_id", "g7"}, {"x", 1}}}});
  EXPECT_EQ(std::dynamic_pointer_cast<AgentParticipant>(plain), nullptr);
  const auto typed = std::dynamic_pointer_cast<AgentParticipant>(agent);
  ASSERT_TRUE(typed);
  EXPECT_EQ(typed->agentId(), "g7");
  EXPECT_EQ(agent->metaData(), (Dictionary{{"x", 1}}));
}

TEST_F(ParticipantsTest, aStreamComesPausesAndGoes) {
  const auto bob = test.addPeer("bob");
  const auto ear = listenTo(*bob);
  const auto pushed = test.announce("c1", "bob", "video");
  EXPECT_EQ(pushed->value(), Value(List{""}));
  EXPECT_THAT(ear->take(), ElementsAre("onStreamEnabled c1 video of bob"));
  const auto stream = bob->streams().at("c1");
  std::vector<StreamState> states;
  const auto id =
      stream->on(MediaStreamEventType::state, [&](StreamState state) { states.push_back(state); });
  stream->off(MediaStreamEventType::state, "unknown");

  test.notify("consumerPaused", {{"consumerId", "c1"}});
  EXPECT_TRUE(stream->isPaused());
  test.notify("consumerResumed", {{"consumerId", "c1"}});
  EXPECT_FALSE(stream->isPaused());
  test.notify("consumerClosed", {{"consumerId", "c1"}});
  EXPECT_THAT(states, ElementsAre(StreamState::ACTIVE, StreamState::ENDED));
  EXPECT_THAT(ear->lines(), IsEmpty()) << "listed a moment longer, so that its end is heard";
  platform.advance(99ms);
  EXPECT_EQ(platform.journal.count("consumer c1.close"), 0);
  platform.advance(1ms);
  EXPECT_THAT(ear->lines(), ElementsAre("onStreamDisabled c1 video of bob"));
  EXPECT_EQ(platform.journal.count("consumer c1.close"), 1);
  EXPECT_FALSE(stream->track()->isEnabled());
  stream->off(MediaStreamEventType::state, id);
  test.notify("consumerClosed", {{"consumerId", "c1"}});
  platform.advance(1s);
  EXPECT_EQ(platform.journal.count("consumer c1.close"), 1);
}

TEST_F(ParticipantsTest, aStreamMayArriveRightBehindItsPersonOrForNobody) {
  test.socket().notify("newPeer", {{"id", "bob"}});
  test.announce("c1", "bob", "audio");
  EXPECT_EQ(test.meeting->participants().at("bob")->streams().size(), 1u);
  EXPECT_TRUE(test.announce("c2", "nobody", "audio")->acknowledged);
  test.notify("peerClosed", {{"peerId", "bob"}});
  test.announce("c3", "bob", "audio");
  EXPECT_THAT(test.meeting->participants(), IsEmpty());
}

TEST_F(ParticipantsTest, thePresenterIsWhoeverShares) {
  test.addPeer("bob");
  test.addPeer("eve");
  test.announce("c1", "bob", "video");
  EXPECT_FALSE(test.meeting->activePresenterId());
  test.announce("s1", "bob", "video", true);
  EXPECT_EQ(test.meeting->activePresenterId(), "bob");
  test.announce("s2", "eve", "video", true);
  test.notify("consumerClosed", {{"consumerId", "s1"}});
  platform.advance(100ms);
  EXPECT_EQ(test.meeting->activePresenterId(), "eve") << "another's share ended";
  test.notify("peerClosed", {{"peerId", "eve"}});
  EXPECT_FALSE(test.meeting->activePresenterId());
  std::vector<std::string> told;
  for (const auto& line : test.listener->lines())
    if (line.starts_with("onPresenterChanged")) told.push_back(line);
  EXPECT_THAT(told, ElementsAre("onPresenterChanged bob", "onPresenterChanged eve",
                                "onPresenterChanged nobody"));
}

TEST_F(ParticipantsTest, whoeverLeavesTakesTheStreamsAlong) {
  const auto bob = test.addPeer("bob");
  const auto ear = listenTo(*bob);
  test.announce("c1", "bob", "audio");
  test.announce("c2", "bob", "video");
  ear->take();
  test.notify("peerClosed", {{"peerId", "bob"}});
  EXPECT_THAT(ear->lines(),
              ElementsAre("onStreamDisabled c1 audio of bob", "onStreamDisabled c2 video of bob"));
  EXPECT_THAT(bob->streams(), IsEmpty());
}

TEST_F(ParticipantsTest, mediaModeAndPinsReachThePersonOrOurselves) {
  const auto bob = test.addPeer("bob");
  const auto ear = listenTo(*bob);
  for (const char* id : {"bob", "me", "nobody"}) {
    test.notify("participantMediaStateChanged",
                {{"peerId", id}, {"kind", "share"}, {"newState", true}});
    test.notify("peerModeChanged", {{"peerId", id}, {"mode", "VIEWER"}});
  }
  test.notify("participantMediaStateChanged",
              {{"peerId", "bob"}, {"kind", 5}, {"newState", false}});
  test.notify("participantMediaStateChanged", {{"peerId", "bob"}, {"newState", "yes"}});
  EXPECT_THAT(ear->lines(), ElementsAre("onMediaStatusChanged bob share on",
                                        "onMediaStatusChanged bob audio off"));
  EXPECT_THAT(test.localListener->lines(), ElementsAre("onMediaStatusChanged me share on"));
  EXPECT_EQ(bob->mode(), Mode::VIEWER);
  EXPECT_EQ(test.meeting->localParticipant()->mode(), Mode::VIEWER);

  const auto pin = [&](bool cam, bool share) {
    test.notify("pinStateChanged",
                {{"peerId", "bob"}, {"state", {{"cam", cam}, {"share", share}}}});
  };
  pin(true, true);
  EXPECT_EQ(test.meeting->pinnedParticipants().count("bob"), 1u);
  pin(false, true);
  EXPECT_EQ(bob->pinState(), (ParticipantPinState{false, true}));
  pin(false, false);
  EXPECT_THAT(test.meeting->pinnedParticipants(), IsEmpty());
  EXPECT_EQ(bob->pinState(), (ParticipantPinState{false, false}));
}

TEST_F(ParticipantsTest, keepingAPersonDoesNotKeepTheMeeting) {
  const auto bob = test.addPeer("bob");
  test.announce("c1", "bob", "video");
  const auto stream = bob->streams().at("c1");
  ASSERT_TRUE(bob->meetingActionValidator());
  test.meeting.reset();
  platform.pump();
  EXPECT_FALSE(bob->meetingActionValidator());
  EXPECT_EQ(platform.service->socket(), nullptr);
  EXPECT_EQ(platform.run(stream->stats()), "[]") << "what is left answers all the same";
}

}  // namespace
}  // namespace kestrova::test
