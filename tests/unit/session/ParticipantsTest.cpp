#include <kestrova/signalling/SDKConfiguration.h>

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

TEST_F(ParticipantsTest, whoListensFromTheArrivalOnMissesNoStream) {
  const auto ear = std::make_shared<RecordingParticipantListener>();
  std::size_t atTheArrival = 0;
  test.listener->when("onParticipantJoined bob", [&] {
    test.listener->joined.back()->addEventListener(ear);
    atTheArrival = test.listener->joined.back()->streams().size();
  });
  test.socket().notify("newPeer", {{"id", "bob"}, {"displayName", "bob"}});
  test.announce("c1", "bob", "audio");
  EXPECT_THAT(ear->take(), ElementsAre("onStreamEnabled c1 audio of bob"));
  EXPECT_EQ(atTheArrival, 1u) << "seen there, and told behind it";
  test.addPeer("bob");
  EXPECT_THAT(ear->lines(), IsEmpty()) << "another arrival tells no stream again";
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

TEST_F(ParticipantsTest, whatIsAskedOfOthersIsSentWithTheirId) {
  const auto bob = test.addPeer("bob");
  struct Row {
    void (Participant::*ask)();
    const char* method;
    int refusal;
  };
  const Row rows[] = {{&Participant::enableMic, "enablePeerMic", 4067},
                      {&Participant::disableMic, "disablePeerMic", 4068},
                      {&Participant::enableWebcam, "enablePeerWebcam", 4069},
                      {&Participant::disableWebcam, "disablePeerWebcam", 4070},
                      {&Participant::remove, "removePeer", 4066}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.method);
    test.listener->take();
    ((*bob).*row.ask)();
    platform.pump();
    EXPECT_EQ(platform.service->last(row.method), (Dictionary{{"peerId", "bob"}}));
    EXPECT_THAT(test.listener->lines(), IsEmpty());
    platform.service->refuse(row.method);
    ((*bob).*row.ask)();
    platform.pump();
    EXPECT_TRUE(test.listener->has("onError " + std::to_string(row.refusal)));
    EXPECT_EQ(test.listener->errors.back().cause(), "no");
  }
}

TEST_F(ParticipantsTest, anAgentIsAskedForNothing) {
  const auto agent = test.addPeer("bot", {{"metaData", {{"agent_id", "g7"}}}});
  EXPECT_THROW(agent->enableMic(), AgentParticipantError);
  EXPECT_THROW(agent->captureImage(1, 1, {}), AgentParticipantError);
  try {
    agent->setQuality(VideoQuality::low);
    FAIL();
  } catch (const AgentParticipantError& error) {
    EXPECT_STREQ(error.what(), "setQuality method is not supported on agent participant.");
  }
}

TEST_F(ParticipantsTest, pinsAddUpAndComeBackFromTheService) {
  const auto bob = test.addPeer("bob");
  bob->pin(PinType::CAM);
  platform.pump();
  EXPECT_EQ(platform.service->last("pinStateChanged"),
            (Dictionary{{"peerId", "bob"}, {"state", {{"cam", true}, {"share", false}}}}));
  EXPECT_THAT(test.meeting->pinnedParticipants(), IsEmpty()) << "until the service says so";
  test.notify("pinStateChanged", {{"peerId", "bob"}, {"state", {{"cam", true}}}});
  bob->pin(PinType::SHARE);
  platform.pump();
  EXPECT_EQ(platform.service->last("pinStateChanged").at("state"),
            (Value{{"cam", true}, {"share", true}}));
  test.notify("pinStateChanged", {{"peerId", "bob"}, {"state", {{"cam", true}, {"share", true}}}});
  bob->unpin(PinType::SHARE_AND_CAM);
  platform.pump();
  EXPECT_EQ(platform.service->last("pinStateChanged").at("state"),
            (Value{{"cam", false}, {"share", false}}));
  test.notify("pinStateChanged",
              {{"peerId", "bob"}, {"state", {{"cam", false}, {"share", false}}}});
  EXPECT_THAT(test.meeting->pinnedParticipants(), IsEmpty());
  test.notify("pinStateChanged", {{"peerId", "me"}, {"state", {{"share", true}}}});
  EXPECT_EQ(test.meeting->localParticipant()->pinState().share, true);

  bob->pin(PinType::CAM);
  bob->pin(PinType::SHARE);
  platform.pump();
  EXPECT_EQ(platform.service->last("pinStateChanged").at("state"),
            (Value{{"cam", true}, {"share", true}}))
      << "one behind the other keeps both";
  platform.service->refuse("pinStateChanged");
  bob->unpin(PinType::CAM);
  platform.pump();
  bob->pin(PinType::CAM);
  platform.pump();
  EXPECT_EQ(platform.service->last("pinStateChanged").at("state"),
            (Value{{"cam", true}, {"share", false}}))
      << "what was refused does not count";
  test.notify("pinStateChanged", {{"peerId", "bob"}, {"state", {{"cam", true}}}});
  test.notify("peerClosed", {{"peerId", "bob"}});
  EXPECT_FALSE(test.meeting->pinnedParticipants().contains("bob"));
}

TEST_F(ParticipantsTest, anotherQualityIsAskedForOnceOfEachStream) {
  const auto bob = test.addPeer("bob");
  test.announce("a1", "bob", "audio");
  test.announce("s1", "bob", "video", true);
  bob->setQuality(VideoQuality::low);
  platform.pump();
  EXPECT_EQ(platform.service->count("setConsumerPreferredLayers"), 0) << "no camera";
  test.announce("c1", "bob", "video");
  for (const auto quality : {VideoQuality::low, VideoQuality::medium, VideoQuality::medium})
    bob->setQuality(quality);
  platform.pump();
  EXPECT_EQ(platform.service->count("setConsumerPreferredLayers"), 2);
  EXPECT_EQ(platform.service->last("setConsumerPreferredLayers"),
            (Dictionary{{"consumerId", "c1"}, {"spatialLayer", 1}, {"temporalLayer", 2}}));
  test.meeting->localParticipant()->setQuality(VideoQuality::low);

  test.notify("consumerClosed", {{"consumerId", "c1"}});
  platform.advance(std::chrono::milliseconds(100));
  test.announce("c2", "bob", "video");
  bob->setQuality(VideoQuality::medium);
  platform.pump();
  EXPECT_EQ(platform.service->count("setConsumerPreferredLayers"), 3) << "another camera";
  platform.service->refuse("setConsumerPreferredLayers");
  bob->setQuality(VideoQuality::low);
  platform.pump();
  bob->setQuality(VideoQuality::low);
  platform.pump();
  EXPECT_EQ(platform.service->count("setConsumerPreferredLayers"), 5) << "it was refused";
  EXPECT_EQ(test.listener->count("onError 4073 SET_QUALITY_FAILED"), 2);
}

TEST_F(ParticipantsTest, theSubscriptionManagerSaysWhyAStreamIsWithheld) {
  const auto bob = test.addPeer("bob");
  const auto ear = listenTo(*bob);
  test.announce("c1", "bob", "video");
  ear->take();
  const Dictionary data{
      {"peerId", "bob"}, {"kind", "video"}, {"reason", "offscreen"}, {"consumerId", "c1"}};
  test.notify("consumerPausedSubManager", data);
  EXPECT_EQ(bob->streams().at("c1")->pausedBy(), "offscreen");
  test.notify("consumerResumedSubManager", data);
  EXPECT_FALSE(bob->streams().at("c1")->pausedBy());
  test.notify("consumerPausedSubManager", {{"peerId", "bob"}, {"consumerId", "gone"}});
  test.notify("consumerPausedSubManager", {{"peerId", "nobody"}, {"consumerId", "c1"}});
  EXPECT_THAT(ear->lines(), ElementsAre("onStreamPaused video offscreen",
                                        "onStreamResumed video offscreen", "onStreamPaused  "));
  EXPECT_TRUE(platform.traces.has("Stream not found to pause! (gone)."));
}

TEST_F(ParticipantsTest, aStreamIsPausedByAskingAndByTheEventThatFollows) {
  const auto bob = test.addPeer("bob");
  test.announce("c1", "bob", "video");
  const auto stream = bob->streams().at("c1");
  stream->pause();
  platform.pump();
  EXPECT_EQ(platform.service->last("pauseConsumer"), (Dictionary{{"consumerId", "c1"}}));
  EXPECT_FALSE(stream->isPaused());
  stream->resume();
  platform.pump();
  EXPECT_EQ(platform.service->count("resumeConsumer"), 1);
  test.socket().drop();
  platform.pump();
  test.listener->take();
  stream->pause();
  platform.pump();
  EXPECT_EQ(platform.service->count("pauseConsumer"), 1);
  EXPECT_TRUE(test.listener->has("onError 3065"));
  test.meeting.reset();
  platform.pump();
  stream->pause();
  bob->remove();
  platform.pump();
}

TEST_F(ParticipantsTest, aWrapperLibraryMakesItselfKnownByItsPrefix) {
  EXPECT_EQ(test.meeting->getAttributes(), Dictionary());
  test.meeting->setAttributes("Flutter", "1.0");
  EXPECT_EQ(test.meeting->getAttributes(), Dictionary());
  test.meeting->setAttributes("Unity-Android", "7.1");
  const auto attributes = test.meeting->getAttributes();
  EXPECT_EQ(attributes.at("peerId"), Value("me"));
  EXPECT_TRUE(attributes.contains("enabledLogs"));
  SDKConfiguration::shared().setIdentity("iOS", "3.2.0");
}

}  // namespace
}  // namespace kestrova::test
