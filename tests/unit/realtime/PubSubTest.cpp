#include <kestrova/realtime/PubSub.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestMeeting.h>

#include "PubSubFixture.h"
#include <limits>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

/// With a server that opens and agrees at once.
class PubSubAgreedTest : public PubSubTest {
protected:
  PubSubAgreedTest() { topics.obliging = true; }
};

// ---- What is refused before anything is sent ---------------------------------------------------

TEST_F(PubSubTest, isRefusedOutsideOfTheMeeting) {
  const auto all = [&](const char* text) {
    EXPECT_EQ(run(pubsub->publish("CHAT", "x")), text);
    EXPECT_EQ(*subscribe(listener), text);
    EXPECT_EQ(unsubscribe(listener), text);
  };
  {
    TestMeeting fresh(platform);
    pubsub = fresh.meeting->pubsub();
    all("You must join the meeting before using PubSub.");
    EXPECT_EQ(fresh.listener->errors.at(0).message(),
              "You must join the meeting before calling the publish() method.");
    EXPECT_EQ(fresh.listener->errors.size(), 3U);
  }
  pubsub = test.meeting->pubsub();
  test.socket().drop();
  platform.pump();
  all("The meeting is reconnecting. Please try again once it reconnects.");
  comeBack();
  test.meeting->leave();
  all("You have already left the meeting.");
  test.meeting.reset();
  platform.pump();
  EXPECT_THAT(topics.urls, IsEmpty());
}

TEST_F(PubSubTest, theFirstOptionThatIsWrongDecides) {
  using Options = PubSubSubscribeOptions;
  const auto drop = RealtimeOverflow::drop;
  const std::pair<Options, const char*> rows[] = {
      {{.oldMessageLimit = -1, .maxQueue = 0},
       "\"oldMessageLimit\" must be an integer >= 0 (got -1)."},
      {{.realtimeOverflow = drop, .maxQueue = 0}, "\"maxQueue\" must be an integer >= 1 (got 0)."},
      {{.newMessageLimit = -7}, "\"newMessageLimit\" must be an integer >= 0 (got -7)."},
      {{.realtimeOverflow = drop, .maxQueue = 5},
       "\"maxQueue\" is not allowed with realtimeOverflow=\"drop\"."}};
  for (const auto& [options, text] : rows) EXPECT_EQ(*subscribe(listener, options), text);
  EXPECT_THAT(topics.urls, IsEmpty());
}

// ---- Frames ------------------------------------------------------------------------------------

TEST_F(PubSubAgreedTest, aSubscriptionSaysWhatIsAskedFor) {
  EXPECT_EQ(*subscribe(listener), "ok");
  const auto plain = topics.last(ClientFrame::subscribe);
  EXPECT_EQ(plain.text(1), "CHAT");
  EXPECT_EQ(plain.text(2), "me");
  EXPECT_EQ(plain.number(3), -1);
  EXPECT_EQ(plain.text(4), "queue");
  EXPECT_EQ(plain.number(5), 0);
  EXPECT_THAT(plain.text(6), MatchesRegex("[0-9a-z]+-[0-9a-z]{8}"));
  EXPECT_EQ(plain.number(7), 0);

  const auto other = std::make_shared<TopicListener>();
  const PubSubSubscribeOptions most{.oldMessageLimit = 3'000'000'000,
                                    .maxQueue = std::numeric_limits<std::int64_t>::max(),
                                    .newMessageLimit = 7};
  EXPECT_EQ(*subscribe(other, most), "ok");
  const auto full = topics.last(ClientFrame::subscribe);
  EXPECT_EQ(full.number(3), 2'147'483'647);
  EXPECT_EQ(full.number(5), 2'147'483'647);
  EXPECT_EQ(full.number(7), 7);
  EXPECT_NE(full.requestId(), plain.requestId());
  EXPECT_THAT(topics.urls, ElementsAre("wss://topics.test"));
}

TEST_F(PubSubAgreedTest, aMessageCarriesItsSenderAndWhatJsonCan) {
  EXPECT_EQ(run(pubsub->publish("CHAT", "hello", {{"persist", true}, {"sendOnly", {"bob", "eve"}}},
                                {{"answer", 42}})),
            "ok");
  const auto full = topics.last(ClientFrame::publish);
  EXPECT_EQ(full.text(1), "CHAT");
  EXPECT_EQ(full.text(2), R"({"answer":42})");
  EXPECT_EQ(full.text(3), "hello");
  EXPECT_THAT(full.texts.at(4), ElementsAre("bob", "eve"));
  EXPECT_THAT(full.text(5), MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z"));
  EXPECT_EQ(full.text(6), "me");
  EXPECT_EQ(full.text(7), "Ada");
  EXPECT_EQ(full.number(8), 1);
  EXPECT_NE(full.text(9), full.text(10));

  const double infinite = std::numeric_limits<double>::infinity();
  EXPECT_EQ(run(pubsub->publish("CHAT", "", {{"persist", "yes"}, {"sendOnly", {"bob", 5}}},
                                {{"answer", infinite}})),
            "ok");
  const auto bare = topics.last(ClientFrame::publish);
  EXPECT_FALSE(bare.texts.contains(2));
  EXPECT_FALSE(bare.texts.contains(4));
  EXPECT_FALSE(bare.numbers.contains(8));
  EXPECT_EQ(run(pubsub->publish("CHAT", "\xFF")),
            "Pubsub Publish Error : a text is not valid UTF-8");
}

// ---- Deliveries --------------------------------------------------------------------------------

TEST_F(PubSubAgreedTest, everyListenerHearsWhatIsNewAndItsOwnHistory) {
  const auto other = std::make_shared<TopicListener>();
  subscribe(listener);
  const auto first = requestIdOf(ClientFrame::subscribe);
  subscribe(other);
  deliver(batchFrame({"CHAT", {{.message = "a"}}, true, false, first}));
  deliver(batchFrame({"CHAT", {{.message = "b"}}, true, true, first}));
  deliverLive({{.message = "c", .seqNum = 1}, {.message = "d", .seqNum = 4}});
  EXPECT_THAT(listener->take(),
              ElementsAre("old a", "old b last", "drop 2", "batch c d", "message c", "message d"));
  EXPECT_THAT(other->take(), ElementsAre("drop 2", "batch c d", "message c", "message d"));
  deliver(batchFrame({.topic = "OTHER", .messages = {{.message = "x"}}}));
  EXPECT_THAT(listener->take(), IsEmpty());
}

TEST_F(PubSubAgreedTest, oddPayloadsAreEmptyAndDeepOnesArrive) {
  std::vector<Dictionary> payloads;
  const auto reading = makeListener(PubSubMessageEvents{
      .onMessageReceived = [&](const auto& message) { payloads.push_back(message.payload); }});
  subscribe(reading);
  std::string deep = "1";
  for (int level = 0; level < 60; ++level) deep = "{\"a\":" + deep + '}';
  deliverLive({{.payload = "[1]"},
               {.payload = "{\"a\":"},
               {.payload = "\xFF"},
               {.payload = R"({"a":"\ud83d"})"},
               {.payload = deep}});
  ASSERT_EQ(payloads.size(), 5U);
  for (int i = 0; i < 3; ++i) EXPECT_THAT(payloads[i], IsEmpty());
  EXPECT_EQ(text(payloads[3], "a", ""), "\xEF\xBF\xBD");
  EXPECT_EQ(boost::json::serialize(payloads[4]), deep);
}

TEST_F(PubSubAgreedTest, aListenerThatIsGoneHearsNothing) {
  subscribe(listener);
  const auto requestId = requestIdOf(ClientFrame::subscribe);
  listener.reset();
  deliver(batchFrame({"CHAT", {{.message = "a"}}, true, true, requestId}));
  deliverLive({{.message = "b"}});
  EXPECT_TRUE(platform.traces.has("[PubSubV2] Router[fastws]: history batch — no live subscriber"));
}

TEST_F(PubSubAgreedTest, leavingInsideAnyCallbackEndsTheRest) {
  for (const auto* moment : {"batch", "message a", "old", "drop"}) {
    TestMeeting one = TestMeeting::joined(platform, {.mode = Mode::SIGNALLING_ONLY});
    pubsub = one.meeting->pubsub();
    const auto leaver = std::make_shared<TopicListener>();
    bool left = false;
    leaver->when(moment, [&] {
      left = true;
      pubsub.reset();
      one.meeting->leave();
      one.meeting.reset();
    });
    subscribe(leaver);
    const auto requestId = requestIdOf(ClientFrame::subscribe);
    topics.deliver(batchFrame({"CHAT", {{.message = "o"}}, true, true, requestId}));
    topics.deliver(batchFrame({"CHAT", {{.message = "a", .seqNum = 1}, {.message = "b"}}}));
    topics.deliver(batchFrame({"CHAT", {{.message = "a", .seqNum = 5}, {.message = "b"}}}));
    platform.pump();
    EXPECT_TRUE(left) << moment;
    EXPECT_TRUE(leaver->lines().back().starts_with(moment)) << leaver->lines().back();
  }
}

// ---- Subscribing and unsubscribing -------------------------------------------------------------

TEST_F(PubSubAgreedTest, aListenerSubscribesOnceAndTheLastOneEndsIt) {
  const auto other = std::make_shared<TopicListener>();
  const auto stranger = std::make_shared<TopicListener>();
  EXPECT_EQ(*subscribe(listener), "ok");
  EXPECT_EQ(*subscribe(listener), "You already subscribed to this topic with same listener.");
  EXPECT_EQ(*subscribe(other), "ok");
  EXPECT_EQ(topics.count(ClientFrame::subscribe), 2);
  EXPECT_EQ(unsubscribe(stranger), "ok");
  EXPECT_EQ(unsubscribe(listener), "ok");
  EXPECT_EQ(topics.count(ClientFrame::unsubscribe), 0);
  deliverLive({{.message = "a"}});
  EXPECT_THAT(listener->lines(), IsEmpty());
  EXPECT_TRUE(other->has("message a"));
  EXPECT_EQ(unsubscribe(other), "ok");
  EXPECT_EQ(topics.last(ClientFrame::unsubscribe).text(1), "CHAT");
  EXPECT_EQ(unsubscribe(other), "No subscribed listener found for this topic");
  EXPECT_EQ(*subscribe(nullptr), "Pubsub Subscribe Error : no listener was given");
}

TEST_F(PubSubTest, aSubscriptionThatFailsTakesItsListenerAlong) {
  const auto silent = subscribe(listener);
  topics.open();
  platform.advance(30s);
  EXPECT_EQ(*silent, "Subscribe timed out. Please check your network connection and try again.");
  EXPECT_EQ(error(), KestrovaError::PUBSUB_SUBSCRIBE_FAILED);
  EXPECT_EQ(unsubscribe(listener), "No subscribed listener found for this topic");

  const auto refused = subscribe(listener);
  deliver(ackFrame(requestIdOf(ClientFrame::subscribe), false, "no rights"));
  EXPECT_EQ(*refused, "Pubsub Subscribe Error : no rights");
  EXPECT_TRUE(platform.traces.has("Error in subscribe() method: no rights"));
}

TEST_F(PubSubTest, anEarlierSubscriptionThatFailsLeavesALaterOneAlone) {
  const auto silent = subscribe(listener);
  topics.open();
  platform.pump();
  const auto leaving = start(pubsub->unsubscribe("CHAT", listener));
  deliver(ackFrame(requestIdOf(ClientFrame::unsubscribe)));
  EXPECT_EQ(*leaving, "ok");
  const auto again = subscribe(listener);
  deliver(ackFrame(requestIdOf(ClientFrame::subscribe)));
  platform.advance(30s);
  EXPECT_EQ(*silent, "Subscribe timed out. Please check your network connection and try again.");
  EXPECT_EQ(*again, "ok");
  deliverLive({{.message = "a"}});
  EXPECT_TRUE(listener->has("message a"));
}

TEST_F(PubSubTest, publishingAndUnsubscribingFailInTheirOwnWords) {
  topics.obliging = true;
  subscribe(listener);
  topics.obliging = false;
  const auto slow = start(pubsub->publish("CHAT", "x"));
  const auto leaving = start(pubsub->unsubscribe("CHAT", listener));
  platform.advance(30s);
  EXPECT_EQ(*slow,
            "Message publishing timed out. Please check your network connection and try again.");
  EXPECT_EQ(*leaving, "Unsubscribe timed out. Please check your network connection and try again.");
  EXPECT_EQ(error(), KestrovaError::PUBSUB_UNSUBSCRIBE_FAILED);
  const auto lost = start(pubsub->publish("CHAT", "x"));
  topics.lose();
  platform.pump();
  EXPECT_EQ(*lost, "Pubsub Publish Error : PubSub is disconnected.");
  EXPECT_EQ(error(), KestrovaError::PUBSUB_PUBLISH_FAILED);
  EXPECT_EQ(error().cause(), "PubSub is disconnected.");
}

// ---- Reconnects and ends -----------------------------------------------------------------------

TEST_F(PubSubAgreedTest, subscriptionsOutliveTheirConnectionButNotTheMeetings) {
  subscribe(listener);
  topics.lose();
  platform.advance(1250ms);
  EXPECT_EQ(topics.last(ClientFrame::subscribe).number(3), 0) << "replayed without history";
  deliverLive({{.message = "a"}});
  EXPECT_THAT(listener->take(), ElementsAre("reconnected", "batch a", "message a"));
  topics.obliging = false;
  topics.lose();
  platform.advance(1250ms);
  topics.open();
  platform.pump();
  deliver(ackFrame(requestIdOf(ClientFrame::subscribe), false, "busy"));
  EXPECT_THAT(listener->take(), IsEmpty()) << "it isn't";
  topics.obliging = true;

  test.socket().drop();
  platform.pump();
  EXPECT_TRUE(
      platform.traces.has("[PubSubV2] Router: resetForReconnect (meeting-level reconnect)"));
  EXPECT_FALSE(topics.isConnected());
  platform.service->answer("join", {{"pubSubUrl", " wss://other.test\n"}});
  comeBack();
  EXPECT_EQ(*subscribe(listener), "ok");
  EXPECT_EQ(topics.urls.back(), "wss://other.test");
}

TEST_F(PubSubAgreedTest, untilTheMeetingIsJoinedAgainNothingIsAskedOfTheOldPlace) {
  const char* reconnecting = "The meeting is reconnecting. Please try again once it reconnects.";
  subscribe(listener);
  const auto connections = topics.urls.size();
  test.socket().drop();
  platform.pump();
  platform.service->withholdOnce("join");
  comeBack();
  EXPECT_EQ(test.meeting->meetingState(), MeetingState::CONNECTED);
  EXPECT_EQ(*subscribe(listener), reconnecting);
  platform.service->answerLate("join", ScriptedService::ok({{"pubSubUrl", "wss://second.test"}}));
  platform.pump();
  EXPECT_EQ(*subscribe(listener), "ok");

  platform.service->withholdOnce("join");
  test.notify("entryResponded", {{"sessionId", "session"},
                                 {"id", "me"},
                                 {"decision", "allowed"},
                                 {"switchingRoomId", "elsewhere"}});
  EXPECT_FALSE(topics.isConnected());
  EXPECT_EQ(run(pubsub->publish("CHAT", "x")), reconnecting);
  platform.service->answerLate("join", ScriptedService::ok({{"pubSubUrl", "wss://third.test"}}));
  platform.pump();
  EXPECT_EQ(*subscribe(listener), "ok");
  EXPECT_EQ(topics.urls.size(), connections + 2);
  EXPECT_EQ(topics.urls.back(), "wss://third.test");
}

TEST_F(PubSubAgreedTest, aJoinThatAMoveHasOvertakenEndsNoWaiting) {
  test.socket().drop();
  platform.pump();
  platform.service->withholdOnce("join");
  comeBack();
  const auto move = [&] {
    test.notify("entryResponded", {{"sessionId", "session"},
                                   {"id", "me"},
                                   {"decision", "allowed"},
                                   {"switchingRoomId", "elsewhere"}});
  };
  move();
  platform.service->withholdOnce("join");
  platform.service->answerLate("join", ScriptedService::ok({{"pubSubUrl", "wss://old.test"}}));
  platform.pump();
  EXPECT_EQ(*subscribe(listener),
            "The meeting is reconnecting. Please try again once it reconnects.");
  platform.service->answerLate("join", ScriptedService::ok({{"pubSubUrl", "wss://new.test"}}));
  platform.pump();
  EXPECT_EQ(*subscribe(listener), "ok");
  EXPECT_EQ(topics.urls.back(), "wss://new.test");
}

TEST_F(PubSubAgreedTest, subscriptionsOfListenersThatAreGoneAreNotMadeAgain) {
  const auto other = std::make_shared<TopicListener>();
  subscribe(listener);
  listener.reset();
  subscribe(other);
  topics.lose();
  platform.advance(1250ms);
  EXPECT_EQ(topics.count(ClientFrame::subscribe), 3);
}

TEST_F(PubSubTest, aDropOfTheMeetingEndsASubscribeInItsMiddle) {
  const auto waiting = subscribe(listener);
  test.socket().drop();
  platform.pump();
  EXPECT_EQ(*waiting,
            "Pubsub Subscribe Error : PubSub is not available because the meeting is in "
            "disconnected state.");
  comeBack();
  topics.obliging = true;
  EXPECT_EQ(*subscribe(listener), "ok");
}

TEST_F(PubSubTest, everyEndOfTheMeetingClosesTheConnection) {
  const std::pair<const char*, std::function<void(TestMeeting&)>> ends[] = {
      {"leave", [](TestMeeting& one) { one.meeting->leave(); }},
      {"end", [](TestMeeting& one) { one.meeting->end(); }},
      {"let go", [](TestMeeting& one) { one.meeting.reset(); }},
      {"lost for good", [](TestMeeting& one) { one.socket().fail(); }},
      {"closed by the service", [](TestMeeting& one) {
         one.notify("close", {{"reason", {{"code", 1010}}}});
       }}};
  topics.obliging = true;
  for (const auto& [name, act] : ends) {
    TestMeeting one = TestMeeting::joined(platform, {.mode = Mode::SIGNALLING_ONLY});
    pubsub = one.meeting->pubsub();
    EXPECT_EQ(*subscribe(listener), "ok") << name;
    EXPECT_TRUE(topics.isConnected()) << name;
    act(one);
    platform.pump();
    EXPECT_FALSE(topics.isConnected()) << name;
  }
}

}  // namespace
}  // namespace kestrova::test
