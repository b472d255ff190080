#include "PubSubFixture.h"

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class PubSubLegacyTest : public PubSubTest {
protected:
  PubSubLegacyTest() { test.meeting->leave(); }
  void SetUp() override {
    platform.service->answer("join", {{"peers", List()}});
    meeting.emplace(TestMeeting::joined(platform, {.mode = Mode::SIGNALLING_ONLY}));
    pubsub = meeting->meeting->pubsub();
    platform.service->answer("pubsubSubscribe", {{"messages", List()}});
  }
  std::optional<TestMeeting> meeting;
};

TEST_F(PubSubLegacyTest, everythingIsARequest) {
  platform.service->answer(
      "pubsubSubscribe", {{"messages", {{{"message", "a"}}, {{"message", 5}, {"topic", "CHAT"}}}}});
  EXPECT_EQ(*subscribe(listener), "ok");
  EXPECT_EQ(platform.service->last("pubsubSubscribe"), (Dictionary{{"topic", "CHAT"}}));
  EXPECT_EQ(*subscribe(listener), "You already subscribed to this topic with same listener.");
  const Dictionary options{{"persist", true}, {"of their own", 1}};
  EXPECT_EQ(run(pubsub->publish("CHAT", "hi", options, {})), "ok");
  EXPECT_EQ(
      platform.service->last("pubsubPublish"),
      (Dictionary{
          {"topic", "CHAT"}, {"message", "hi"}, {"options", options}, {"payload", Dictionary()}}));
  meeting->notify("pubsubMessage", {{"topic", "CHAT"}, {"message", "b"}, {"sendOnly", {1}}});
  meeting->notify("pubsubMessage", {{"topic", "OTHER"}, {"message", "c"}});
  EXPECT_THAT(listener->take(), ElementsAre("old a  last", "message b"));
  EXPECT_EQ(unsubscribe(listener), "ok");
  EXPECT_EQ(platform.service->last("pubsubUnsubscribe"), (Dictionary{{"topic", "CHAT"}}));
  EXPECT_EQ(unsubscribe(listener), "No subscribed listener found for this topic");
  EXPECT_THAT(topics.urls, IsEmpty());
}

TEST_F(PubSubLegacyTest, onlyPublishingFailsAloud) {
  platform.service->refuse("pubsubPublish", 4077, "no rights");
  try {
    platform.run(pubsub->publish("CHAT", "x"));
    ADD_FAILURE() << "it was refused";
  } catch (const PlatformError& error) {
    EXPECT_EQ(error.domain, "com.kestrova.pubsub");
    EXPECT_EQ(error.code, 4077);
    EXPECT_STREQ(error.what(), "Pubsub Publish Error : no rights");
  }
  platform.service->refuse("pubsubPublish", 1, "operation has timed out");
  EXPECT_EQ(run(pubsub->publish("CHAT", "x")),
            "Message publishing timed out. Please check your network connection and try again.");
  platform.service->respond("pubsubPublish", [](const Dictionary&) { return Value("rubbish"); });
  EXPECT_EQ(run(pubsub->publish("CHAT", "x")),
            "Message publishing timed out. Please check your network connection and try again.");
  EXPECT_THAT(meeting->listener->errors, IsEmpty());

  platform.service->refuse("pubsubSubscribe");
  EXPECT_EQ(*subscribe(listener), "ok");
  EXPECT_TRUE(platform.traces.has("[PubSubV2] Router[legacy]: subscribe failed"));
  EXPECT_EQ(unsubscribe(listener), "No subscribed listener found for this topic");
}

TEST_F(PubSubLegacyTest, theRouteIsChosenAfreshForEveryCall) {
  EXPECT_EQ(*subscribe(listener), "ok");
  platform.service->answer("join", {{"pubSubUrl", "wss://topics.test"}});
  const auto other = std::make_shared<TopicListener>();
  topics.obliging = true;
  meeting->socket().drop();
  platform.pump();
  meeting->socket().open();
  platform.advance(100ms);
  meeting->decide("allowed");
  EXPECT_EQ(*subscribe(other), "ok");
  EXPECT_EQ(topics.count(ClientFrame::subscribe), 1);
  EXPECT_EQ(unsubscribe(other), "ok");
  EXPECT_EQ(topics.count(ClientFrame::unsubscribe), 1);
}

}  // namespace
}  // namespace kestrova::test
