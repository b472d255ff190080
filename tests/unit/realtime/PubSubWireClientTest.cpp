#include <kestrova/realtime/PubSubWireClient.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestPlatform.h>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* closedText =
    "PubSub is not available because the meeting is in disconnected state.";

class FakeTransport final : public PubSubTransport {
public:
  void connect() override { ++connects; }
  void send(Bytes frame, SendHandler) override { sent.emplace_back(frame); }
  void close(bool intentional) override {
    EXPECT_TRUE(intentional);
    ++closes;
  }
  void reconnect() override { ++reconnects; }

  int connects = 0;
  int closes = 0;
  int reconnects = 0;
  std::vector<ClientFrame> sent;
};

/// How an operation ended: "waiting", "ok", what it returned, or the error.
using Outcome = std::shared_ptr<std::string>;

class PubSubWireClientTest : public testing::Test {
protected:
  PubSubWireClientTest() {
    client->onLiveMessages = [this](std::string_view topic, const auto& messages) {
      std::string line = "live " + std::string(topic) + ":";
      for (const auto& message : messages) line += ' ' + std::string(message.message);
      told.push_back(line);
    };
    client->onHistoryMessages = [this](std::string_view requestId, std::string_view topic,
                                       const auto& messages, bool isLast) {
      told.push_back("history " + std::string(requestId) + ' ' + std::string(topic) + ' ' +
                     std::to_string(messages.size()) + (isLast ? " last" : ""));
    };
    client->onMessageDrop = [this](std::string_view topic, std::uint64_t count) {
      told.push_back("drop " + std::string(topic) + ' ' + std::to_string(count));
    };
  }

  Outcome start(Task<void> task) {
    auto valued = [](Task<void> inner) -> Task<std::string> {
      co_await std::move(inner);
      co_return "ok";
    };
    return start(valued(std::move(task)));
  }
  Outcome start(Task<std::string> task) {
    auto outcome = std::make_shared<std::string>("waiting");
    auto note = [](Task<std::string> inner, Outcome result) -> Task<void> {
      try {
        *result = co_await std::move(inner);
      } catch (const PubSubWireError& error) {
        *result = error.what();
      }
    };
    spawn(note(std::move(task), outcome));
    platform.pump();
    return outcome;
  }
  Outcome subscribe(const std::string& requestId, const std::string& topic = "t",
                    bool waitForHistory = false) {
    return start(client->subscribe({.topic = topic,
                                    .peerId = "me",
                                    .oldMessageLimit = 5,
                                    .realtimeOverflow = "queue",
                                    .requestId = requestId},
                                   waitForHistory));
  }
  Outcome publish(const std::string& requestId) {
    return start(client->publish(
        {.topic = "t", .message = "m", .messageId = "own-id", .requestId = requestId}));
  }
  Outcome unsubscribe(const std::string& requestId, const std::string& topic = "t") {
    return start(client->sendUnsubscribe(topic, requestId));
  }
  void onQueue(std::function<void()> step) {
    queue->async(std::move(step));
    platform.pump();
  }
  void open() {
    onQueue([this] { transport->onOpen(); });
  }
  void lose() {
    onQueue([this] { transport->onClose(true); });
  }
  void frame(const Bytes& bytes) {
    onQueue([this, bytes] { transport->onFrame(bytes); });
  }
  void live(const std::vector<std::uint64_t>& numbers) {
    BatchFrame batch{.topic = "t"};
    for (const auto number : numbers)
      batch.messages.push_back({.message = '#' + std::to_string(number), .seqNum = number});
    frame(batchFrame(batch));
  }
  void history(const std::string& requestId, bool isLast, const std::string& topic = "t") {
    frame(batchFrame({topic, {{.message = "old"}}, true, isLast, requestId}));
  }
  std::vector<std::string> frames() {
    std::vector<std::string> lines;
    for (const auto& each : std::exchange(transport->sent, {})) {
      constexpr const char* names[] = {"", "subscribe", "unsubscribe", "publish", "", "pong"};
      lines.push_back(std::string(names[each.kind]) + ' ' + each.requestId());
      if (each.kind == ClientFrame::subscribe) lines.back() += ' ' + std::to_string(each.number(3));
    }
    return lines;
  }
  std::vector<std::string> take() { return std::exchange(told, {}); }

  TestPlatform platform;
  std::shared_ptr<SerialQueue> queue = SerialQueue::make("test");
  std::shared_ptr<FakeTransport> transport = std::make_shared<FakeTransport>();
  std::shared_ptr<PubSubWireClient> client = PubSubWireClient::make(transport, queue);
  std::vector<std::string> told;
};

// ---- Operations --------------------------------------------------------------------------------

TEST_F(PubSubWireClientTest, theFirstOperationOpensTheTransportAndWaits) {
  const auto published = publish("p1");
  const auto subscribed = subscribe("s1");
  EXPECT_EQ(transport->connects, 2);
  EXPECT_THAT(frames(), IsEmpty());
  platform.advance(29s);
  open();
  EXPECT_THAT(frames(), ElementsAre("publish p1", "subscribe s1 5"));
  frame(ackFrame("p1", true, "", "their-id"));
  frame(ackFrame("s1"));
  EXPECT_EQ(*published, "their-id");
  EXPECT_EQ(*subscribed, "ok");
  // 30 s for the connection and another 30 s for the answer.
  lose();
  const auto late = publish("p2");
  platform.advance(29s);
  open();
  platform.advance(29s);
  frame(ackFrame("p2"));
  EXPECT_EQ(*late, "");  // a server that names no id has given none
}

TEST_F(PubSubWireClientTest, whatIsNotAnsweredEndsAfterHalfAMinute) {
  const auto queued = subscribe("s0");
  platform.advance(29'999ms);
  EXPECT_EQ(*queued, "waiting");
  platform.advance(1ms);
  EXPECT_EQ(*queued, "operation has timed out");
  open();
  EXPECT_THAT(frames(), IsEmpty());

  const auto silent = subscribe("s1");
  platform.advance(10s);
  const auto later = publish("p1");
  platform.advance(20s);
  EXPECT_EQ(*silent, "operation has timed out");
  EXPECT_EQ(*later, "waiting");
  frame(ackFrame("s1"));  // too late, and for nobody
  platform.advance(10s);
  EXPECT_EQ(*later, "operation has timed out");
  // The subscription that timed out is none.
  frames();
  lose();
  open();
  EXPECT_THAT(frames(), IsEmpty());
}

TEST_F(PubSubWireClientTest, aRefusalFailsWithTheServersWords) {
  open();
  const auto first = subscribe("s1");
  const auto second = unsubscribe("u1", "other");
  frame(ackFrame("s1", false, "no rights"));
  frame(ackFrame("u1", false));
  EXPECT_EQ(*first, "no rights");
  EXPECT_EQ(*second, "PubSub request failed");
  frame(ackFrame("s1"));                       // twice
  frame(ackFrame("never", false, "strange"));  // what was never asked
  EXPECT_EQ(platform.traces.attribute("[PubSubV2] Wire: unmatched ack error", "error"), "strange");
  frames();
  lose();
  open();
  EXPECT_THAT(frames(), IsEmpty());
}

// ---- Losses ------------------------------------------------------------------------------------

TEST_F(PubSubWireClientTest, aFirstConnectionThatFailsFailsWhatWaited) {
  const auto published = publish("p1");
  const auto subscribed = subscribe("s1");
  lose();
  EXPECT_EQ(*published, "PubSub is disconnected.");
  EXPECT_EQ(*subscribed, "PubSub is disconnected.");
  open();
  EXPECT_THAT(frames(), IsEmpty());
}

TEST_F(PubSubWireClientTest, aLossFailsWhatWasSentAndKeepsWhatWaits) {
  open();
  const auto answered = subscribe("s1");
  frame(ackFrame("s1"));
  const auto unanswered = subscribe("s2");
  const auto sent = publish("p1");
  frames();
  lose();
  EXPECT_EQ(*unanswered, "PubSub is disconnected.");
  EXPECT_EQ(*sent, "PubSub is disconnected.");
  const auto queued = publish("p2");
  const auto another = subscribe("s3");
  lose();  // an attempt that fails
  EXPECT_EQ(*queued, "waiting");
  open();
  // What waited goes first; of the subscriptions only the one that stood is made again, without
  // history.
  EXPECT_THAT(frames(), ElementsAre("publish p2", "subscribe s3 5", "subscribe s1 0"));
  frame(ackFrame("p2", true, "", "id"));
  EXPECT_EQ(*queued, "id");
  EXPECT_EQ(*another, "waiting");
}

TEST_F(PubSubWireClientTest, aReplayThatFailsIsTriedAgainNextTime) {
  open();
  subscribe("s1");
  frame(ackFrame("s1"));
  lose();
  open();
  frame(ackFrame("s1", false, "busy"));
  lose();
  open();
  platform.advance(30s);
  lose();
  frames();
  open();
  EXPECT_THAT(frames(), ElementsAre("subscribe s1 0"));
}

TEST_F(PubSubWireClientTest, closingIsForGood) {
  open();
  const auto sent = publish("p1");
  subscribe("s1");
  frame(ackFrame("s1"));
  lose();
  const auto queued = publish("p2");
  client->close();
  platform.pump();
  EXPECT_EQ(*sent, "PubSub is disconnected.");
  EXPECT_EQ(*queued, closedText);
  EXPECT_EQ(transport->closes, 1);
  const int connects = transport->connects;
  EXPECT_EQ(*publish("p3"), closedText);
  EXPECT_EQ(*subscribe("s2"), closedText);
  EXPECT_EQ(*unsubscribe("u1"), closedText);
  EXPECT_EQ(transport->connects, connects);
}

TEST_F(PubSubWireClientTest, aClientThatWasLetGoEndsWhatComesTooLate) {
  auto subscribing = client->subscribe({.topic = "t", .requestId = "s1"}, false);
  auto publishing = client->publish({.topic = "t", .requestId = "p1"});
  client.reset();
  EXPECT_EQ(*start(std::move(subscribing)), "ok");
  EXPECT_EQ(*start(std::move(publishing)), closedText);
}

// ---- Subscriptions -----------------------------------------------------------------------------

TEST_F(PubSubWireClientTest, historyOrAgreementEndsASubscribe) {
  open();
  const auto byHistory = subscribe("s1");
  history("s1", false);
  EXPECT_EQ(*byHistory, "ok");
  frame(ackFrame("s1"));

  const auto byAgreement = subscribe("s2", "t", true);
  history("s2", false);
  EXPECT_EQ(*byAgreement, "waiting");
  frame(ackFrame("s2"));
  EXPECT_EQ(*byAgreement, "ok");
  history("s2", true);

  const auto byTheLast = subscribe("s3", "t", true);
  history("s3", false);
  history("s3", false);
  EXPECT_EQ(*byTheLast, "waiting");
  history("s3", true);
  EXPECT_EQ(*byTheLast, "ok");
  platform.advance(60s);
  EXPECT_FALSE(platform.traces.has("[PubSubV2] Wire: request timed out"));
}

TEST_F(PubSubWireClientTest, historyWithoutAnIdBelongsToTheReplayThatIsUnderWay) {
  open();
  history("", true);
  EXPECT_TRUE(platform.traces.has("[PubSubV2] Wire: history batch dropped — no owner"));
  history("s1", false);
  history("s2", false);
  history("", false);
  history("s1", true);
  history("", true);
  history("", true);
  history("", false, "other");
  EXPECT_THAT(take(), ElementsAre("history s1 t 1", "history s2 t 1", "history s1 t 1",
                                  "history s1 t 1 last", "history s2 t 1 last"));
}

TEST_F(PubSubWireClientTest, unsubscribingForgetsEverySubscriptionOfTheTopic) {
  open();
  for (const auto* id : {"s1", "s2", "s3"}) {
    subscribe(id, *id == 's' && id[1] == '3' ? "other" : "t");
    frame(ackFrame(id));
  }
  const auto gone = unsubscribe("u1");
  EXPECT_THAT(frames(),
              ElementsAre("subscribe s1 5", "subscribe s2 5", "subscribe s3 5", "unsubscribe u1"));
  frame(ackFrame("u1"));
  EXPECT_EQ(*gone, "ok");
  lose();
  open();
  EXPECT_THAT(frames(), ElementsAre("subscribe s3 0"));
  client->removeSubscription("s3");
  lose();
  open();
  EXPECT_THAT(frames(), IsEmpty());
}

TEST_F(PubSubWireClientTest, aTopicThatIsWantedAgainStaysSubscribed) {
  open();
  subscribe("s1");
  frame(ackFrame("s1"));
  frames();
  EXPECT_EQ(*start(client->sendUnsubscribe("t", "u1", [] { return true; })), "ok");
  EXPECT_THAT(frames(), IsEmpty());
  lose();
  open();
  EXPECT_THAT(frames(), ElementsAre("subscribe s1 0"));
}

// ---- Live messages -----------------------------------------------------------------------------

TEST_F(PubSubWireClientTest, aHoleIsToldBeforeWhatComesAfterIt) {
  live({5, 6, 9});
  EXPECT_THAT(take(), ElementsAre("drop t 2", "live t: #5 #6 #9"));
  EXPECT_TRUE(platform.traces.has(
      "[PubSubV2] PubSub v2 DROP-MECH1-HOLE { topic: t, dropped: 2, kept: 3 }"));
  EXPECT_TRUE(platform.traces.has("[PubSubV2] [LOADTEST] SEQ-DROP { topic=t dropped=2 kept=3 }"));
  live({7, 9, 0});  // late, twice, without a number
  live({10});
  EXPECT_THAT(take(), ElementsAre("live t: #7 #9 #0", "live t: #10"));
  live({12, 14});
  EXPECT_THAT(take(), ElementsAre("drop t 2", "live t: #12 #14"));
  live({1, 15});  // numbers that run backwards
  EXPECT_THAT(take(), ElementsAre("live t: #1 #15"));
}

TEST_F(PubSubWireClientTest, aNewConnectionOrSubscriptionCountsAfresh) {
  open();
  live({5});
  lose();
  open();
  live({100});
  unsubscribe("u1");
  live({200});
  EXPECT_THAT(take(), ElementsAre("live t: #5", "live t: #100", "live t: #200"));
}

TEST_F(PubSubWireClientTest, whatCameWhileUnsubscribingIsForgottenWithTheTopic) {
  open();
  live({5});
  const auto leaving = unsubscribe("u1");
  live({6});
  history("s1", false);
  frame(ackFrame("u1"));
  EXPECT_EQ(*leaving, "ok");
  take();
  live({100});
  history("", true);
  EXPECT_THAT(take(), ElementsAre("live t: #100"));
}

TEST_F(PubSubWireClientTest, aMessageThatIsTooLargeFailsAlone) {
  open();
  const auto other = publish("p1");
  const auto large =
      start(client->publish({.topic = "t",
                             .message = std::string(PubSubWireClient::mostFrameBytes, 'x'),
                             .requestId = "p2"}));
  EXPECT_EQ(*large, "the message is too large");
  EXPECT_EQ(*other, "waiting");
  EXPECT_THAT(frames(), ElementsAre("publish p1"));
}

TEST_F(PubSubWireClientTest, historyHasNoPartInTheNumbers) {
  live({5});
  frame(batchFrame({"t", {{.message = "old", .seqNum = 50}}, true, true, "s1"}));
  live({6});
  EXPECT_THAT(take(), ElementsAre("live t: #5", "history s1 t 1 last", "live t: #6"));
}

TEST_F(PubSubWireClientTest, rubbishCostsItselfOnly) {
  open();
  frame({});
  frame({0xFF, 0xFF, 0xFF});
  EXPECT_EQ(platform.traces.count("[PubSubV2] Wire: dropping undecodable server frame"), 2);
  frame(batchFrame("t",
                   {encodeMessage({.message = "a"}), {0x0A, 9}, encodeMessage({.message = "b"})}));
  frame(batchFrame("t", {{0x0B}}));
  EXPECT_THAT(take(), ElementsAre("live t: a b"));
  EXPECT_TRUE(
      platform.traces.has("[PubSubV2] PubSub v2 undecodable payload dropped: unknownWireType(3)"));
  EXPECT_EQ(*publish("p1"), "waiting");  // and the connection is as good as before
  EXPECT_THAT(frames(), ElementsAre("publish p1"));
}

// ---- Silence -----------------------------------------------------------------------------------

TEST_F(PubSubWireClientTest, twoMissingPingsAreALoss) {
  open();
  platform.advance(300s);
  EXPECT_EQ(transport->reconnects, 0);  // nobody has promised anything
  frame(welcomeFrame(10'000));
  platform.advance(19s);
  frame(pingFrame(7));
  ASSERT_EQ(transport->sent.size(), 1U);
  EXPECT_EQ(transport->sent[0].kind, ClientFrame::pong);
  EXPECT_EQ(transport->sent[0].number(1), 7);
  platform.advance(19'999ms);
  EXPECT_EQ(transport->reconnects, 0);
  platform.advance(1ms);
  EXPECT_EQ(transport->reconnects, 1);
  EXPECT_EQ(platform.traces.attribute(
                "[PubSubV2] Wire: server-ping watchdog fired — forcing reconnect", "timeoutSec"),
            "20");
  EXPECT_TRUE(platform.traces.has("No server ping for 20s (interval=10s, last seq=7)"));
  platform.advance(300s);
  EXPECT_EQ(transport->reconnects, 1);
}

TEST_F(PubSubWireClientTest, aServerThatNamesNoIntervalHasAMinute) {
  open();
  frame(welcomeFrame(0));
  platform.advance(59'999ms);
  EXPECT_EQ(transport->reconnects, 0);
  lose();  // which ends the watch
  platform.advance(60s);
  open();
  frame(welcomeFrame(0));
  platform.advance(60s);
  EXPECT_EQ(transport->reconnects, 1);
}

}  // namespace
}  // namespace kestrova::test
