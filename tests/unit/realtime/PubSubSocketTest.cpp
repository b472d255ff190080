#include <kestrova/realtime/FastwsMessages.h>
#include <kestrova/realtime/PubSubSocket.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestPlatform.h>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class PubSubSocketTest : public testing::Test {
protected:
  explicit PubSubSocketTest(const std::string& url = "wss://topics.test/?ticket=1")
      : socket(PubSubSocket::make(url, SerialQueue::make("test"))) {
    socket->onOpen = [this] { events.emplace_back("open"); };
    socket->onFrame = [this](ByteView frame) { events.emplace_back(textOf(frame)); };
    socket->onClose = [this](bool unexpected) {
      events.emplace_back(unexpected ? "lost" : "closed");
    };
  }
  void connect() {
    socket->connect();
    platform.pump();
  }
  void openAndForget() {
    connect();
    topics.open();
    platform.pump();
    events.clear();
  }
  std::vector<std::string> take() {
    platform.pump();
    return std::exchange(events, {});
  }
  long reconnects() { return platform.traces.count("[PubSubV2] Socket: reconnect scheduled"); }

  TestPlatform platform;
  ScriptedTopics& topics = *platform.topics;
  std::shared_ptr<PubSubSocket> socket;
  std::vector<std::string> events;
};

TEST_F(PubSubSocketTest, connectsOnceAndCarriesWholeFrames) {
  connect();
  connect();
  EXPECT_THAT(topics.urls, ElementsAre("wss://topics.test/?ticket=1"));
  EXPECT_EQ(platform.traces.attribute(
                "[PubSubV2] Socket: connect ignored (already connecting/open)", "isConnecting"),
            "true");
  topics.open();
  topics.deliver(Bytes{'a'});
  topics.deliver(Bytes{'b'}, WebSocketTask::Message::Kind::text);
  topics.deliver(Bytes{});
  EXPECT_THAT(take(), ElementsAre("open", "a", "b", ""));
  EXPECT_TRUE(platform.traces.has("[PubSubV2] Socket: text frame received (tolerated as UTF-8)"));
}

TEST_F(PubSubSocketTest, sendsWhileItIsOpenOnly) {
  std::vector<std::string> results;
  const auto send = [&] {
    socket->send(FastwsClientMessage{FastwsPong{1}}.encoded(), [&](auto error) {
      results.emplace_back(error == PubSubTransportError::notConnected ? "notConnected" : "sent");
    });
    platform.pump();
  };
  send();
  connect();
  send();
  topics.open();
  send();
  EXPECT_THAT(results, ElementsAre("notConnected", "notConnected", "sent"));
  EXPECT_EQ(topics.count(ClientFrame::pong), 1);
}

TEST_F(PubSubSocketTest, oneEndIsToldOnceHoweverOftenItIsSaid) {
  openAndForget();
  topics.close(1011);  // a failed receive, a close and an end
  EXPECT_THAT(take(), ElementsAre("lost"));
  EXPECT_EQ(reconnects(), 1);
  EXPECT_THAT(topics.cancelled, ElementsAre(1001));
  platform.advance(999ms);
  EXPECT_EQ(topics.urls.size(), 1U);
  platform.advance(251ms);
  EXPECT_EQ(topics.urls.size(), 2U);
  EXPECT_TRUE(topics.isConnected());
}

TEST_F(PubSubSocketTest, theSameHoldsForAnAttemptThatFails) {
  connect();
  topics.lose("connection refused");
  EXPECT_THAT(take(), ElementsAre("lost"));
  platform.advance(1250ms);
  topics.lose("connection refused");
  EXPECT_THAT(take(), ElementsAre("lost"));
  EXPECT_EQ(platform.traces.attribute("[PubSubV2] Socket: reconnect scheduled", "attempt"), "2");
  platform.advance(1499ms);
  EXPECT_EQ(topics.urls.size(), 2U);
  platform.advance(1001ms);
  topics.open();
  EXPECT_THAT(take(), ElementsAre("open"));
  topics.lose();
  EXPECT_THAT(take(), ElementsAre("lost"));
  // A connection that stood begins the count again.
  EXPECT_EQ(platform.traces.attribute("[PubSubV2] Socket: reconnect scheduled", "attempt"), "1");
}

TEST_F(PubSubSocketTest, aWantedEndIsForGood) {
  openAndForget();
  socket->close(true);
  EXPECT_THAT(take(), ElementsAre("closed"));
  connect();
  platform.advance(60s);
  EXPECT_EQ(topics.urls.size(), 1U);
  EXPECT_TRUE(platform.traces.has("[PubSubV2] Socket: connect ignored (intentional close)"));
  EXPECT_EQ(reconnects(), 0);
}

TEST_F(PubSubSocketTest, aWantedEndWhileConnectingLeavesTheNextAttemptNothingToDo) {
  connect();
  topics.lose();
  platform.pump();
  connect();  // sooner than the pause
  events.clear();
  socket->close(true);
  EXPECT_THAT(take(), ElementsAre("closed"));
  platform.advance(60s);
  EXPECT_EQ(topics.urls.size(), 2U);
}

TEST_F(PubSubSocketTest, aPlainCloseWaitsForTheNextConnect) {
  openAndForget();
  socket->close(false);
  EXPECT_THAT(take(), ElementsAre("closed"));
  platform.advance(60s);
  EXPECT_EQ(topics.urls.size(), 1U);
  openAndForget();
  EXPECT_EQ(topics.urls.size(), 2U);
}

TEST_F(PubSubSocketTest, aForcedReconnectIsALossAndNothingWhileDown) {
  socket->reconnect();
  EXPECT_THAT(take(), IsEmpty());
  openAndForget();
  socket->reconnect();
  EXPECT_THAT(take(), ElementsAre("lost"));
  socket->reconnect();
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_EQ(reconnects(), 1);
}

TEST_F(PubSubSocketTest, attemptsThatWereAskedForBeginNoSeriesOfTheirOwn) {
  for (int i = 0; i < 10; ++i) {
    connect();
    topics.lose();
    platform.pump();
  }
  EXPECT_EQ(reconnects(), 1);
  EXPECT_EQ(topics.urls.size(), 10U);
  platform.advance(1250ms);
  EXPECT_EQ(topics.urls.size(), 11U) << "and put nothing off";
  for (std::size_t i = 12; i < 20; ++i) {
    topics.lose();
    platform.advance(37'500ms);
    EXPECT_EQ(topics.urls.size(), i);
  }
  topics.open();
  platform.pump();
  topics.lose();
  platform.advance(1250ms);
  EXPECT_EQ(topics.urls.size(), 20U);
}

TEST_F(PubSubSocketTest, anEarlierConnectionSpeaksForItselfOnly) {
  connect();
  topics.lose();
  platform.advance(1250ms);
  take();
  topics.events(0).didOpen();
  topics.events(0).didClose(1000);
  topics.events(0).didComplete(std::nullopt);
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_TRUE(platform.traces.has("[PubSubV2] Socket: open ignored (superseded generation)"));
  EXPECT_TRUE(topics.isConnected());
  topics.open();
  EXPECT_THAT(take(), ElementsAre("open"));
}

TEST_F(PubSubSocketTest, whatALetGoSocketHasStillToSayGoesNowhere) {
  openAndForget();
  topics.deliver(Bytes{'x'});
  topics.lose();
  socket.reset();
  EXPECT_THAT(take(), IsEmpty());
  platform.advance(60s);
  EXPECT_EQ(topics.urls.size(), 1U);
  EXPECT_THAT(topics.cancelled, ElementsAre(1001));
}

class NoSocketUrlTest : public PubSubSocketTest {
protected:
  NoSocketUrlTest() : PubSubSocketTest("https://topics.test") {}
};

TEST_F(NoSocketUrlTest, isAnAttemptThatFails) {
  connect();
  EXPECT_THAT(take(), ElementsAre("lost"));
  EXPECT_EQ(reconnects(), 1);
}

TEST(PubSubSocketDelayTest, growsToHalfAMinuteGiveOrTakeAQuarter) {
  const struct {
    int attempt;
    double random;
    std::chrono::milliseconds delay;
  } rows[] = {{0, 0, 1000ms},     {0, 0.5, 1000ms},  {0, 1, 1250ms},
              {1, 0, 1500ms},     {1, 1, 2500ms},    {4, 0.5, 16'000ms},
              {5, 0.5, 30'000ms}, {60, 1, 37'500ms}, {2000, 0, 22'500ms}};
  for (const auto& row : rows)
    EXPECT_EQ(PubSubSocket::reconnectDelay(row.attempt, row.random), row.delay) << row.attempt;
}

}  // namespace
}  // namespace kestrova::test
