#include <kestrova/signalling/Response.h>
#include <kestrova/signalling/SocketRequestHandler.h>
#include <kestrova/tracing/Trace.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestPlatform.h>

#include <cmath>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

/// All three ears of a handler, as lines.
class Ear final : public RemoteEventDelegate,
                  public SocketEventDelegate,
                  public MeetingStateDelegate {
public:
  void handleRemoteEvent(RemoteEvent event, const Dictionary&) override {
    lines.push_back("event " + std::string(wireText(event)));
  }
  void handleNewConsumer(const Dictionary&) override {
    lines.emplace_back("newConsumer");
    if (!consumes) throw std::runtime_error("no codec");
  }
  Dictionary getStatsData() override {
    lines.emplace_back("statsData");
    return {{"rtt", 7}};
  }
  Task<bool> socketConnected(SpanScope, Connection) override {
    lines.emplace_back("socketConnected");
    co_return enters;
  }
  Task<void> socketDisconnected(LeaveReason reason) override {
    lines.push_back("disconnected " + std::string(name(reason)));
    co_return;
  }
  void socketError(const std::string& message) override { lines.push_back("error " + message); }
  void meetingStateChanged(MeetingState state, Connection) override {
    lines.push_back("state " + std::string(name(state)));
  }

  std::vector<std::string> lines;
  bool consumes = true;
  bool enters = true;
};

class SocketRequestHandlerTest : public testing::Test {
public:
  SocketRequestHandlerTest() {
    handler->setDelegates(ear, ear, ear);
    connect();
  }
  void connect() {
    handler->connect("https://signal.test", "/abc/socket.io", openSpan("Joining the meeting"));
    platform.pump();
  }
  void open() {
    socket().open();
    platform.advance(100ms);
    take();
  }
  ScriptedSocket& socket() { return *platform.service->socket(); }
  std::vector<std::string> take() {
    platform.pump();
    return std::exchange(ear->lines, {});
  }

  TestPlatform platform;
  std::shared_ptr<Ear> ear = std::make_shared<Ear>();
  std::shared_ptr<SocketRequestHandler> handler =
      std::make_shared<SocketRequestHandler>(MeetingData{.id = "room",
                                                         .localParticipantId = "me",
                                                         .localParticipantName = "Ada",
                                                         .mode = "RECV_ONLY",
                                                         .accessToken = "tok&en"},
                                             std::make_shared<Connections>());
};

TEST_F(SocketRequestHandlerTest, connectsWithTheServicesOptions) {
  ASSERT_EQ(platform.service->connections().size(), 1u);
  const auto& [url, config] = platform.service->connections().front();
  using Params = std::vector<std::pair<std::string, std::string>>;
  EXPECT_EQ(url, "https://signal.test");
  EXPECT_EQ(config.path, "/abc/socket.io");
  EXPECT_EQ(config.connectParams, (Params{{"roomId", "room"},
                                          {"peerId", "me"},
                                          {"secret", "tok&en"},
                                          {"mode", "RECV_ONLY"},
                                          {"lib", "socket"}}));
  EXPECT_TRUE(!config.log && config.reconnects && config.forceWebsockets && !config.forceNew);
  EXPECT_EQ(config.reconnectAttempts, 7);
  EXPECT_EQ(config.reconnectWait, 1s);
  EXPECT_EQ(config.reconnectWaitMax, 5s);
  EXPECT_THAT(take(), ElementsAre("state CONNECTING"));
}

TEST_F(SocketRequestHandlerTest, aSecondConnectMeanwhileChangesNothing) {
  const auto handlers = socket().handlerCount();
  connect();
  open();
  connect();
  EXPECT_EQ(platform.service->connections().size(), 1u);
  EXPECT_EQ(socket().handlerCount(), handlers);
  handler->disconnect(LeaveReason::switchRoom);
  connect();
  EXPECT_EQ(platform.service->connections().size(), 2u) << "a closed socket is replaced";
}

TEST_F(SocketRequestHandlerTest, normalisesEveryKindOfAnswer) {
  open();
  const std::pair<Value, Dictionary> rows[] = {
      {{{"data", {{"status", "ok"}}}}, {{"data", {{"status", "ok"}}}}},
      {"Some Text", {{"ACK_STATUS", "some text"}}},
      {7, {}},
      {nullptr, {}},
      {List{1, 2}, {}},
  };
  for (const auto& [answer, expected] : rows) {
    platform.service->respond("startHls", [&answer](const Dictionary&) { return answer; });
    EXPECT_EQ(platform.run(handler->prepareAndSendRequest(LocalEvent::startHls)), expected);
  }
  const auto& request = platform.service->requests().back();
  EXPECT_EQ(request.event, "request");
  EXPECT_EQ(
      request.envelope,
      (Dictionary{
          {"method", "startHls"}, {"roomId", "room"}, {"request", true}, {"data", Dictionary()}}));
}

TEST_F(SocketRequestHandlerTest, waitsTwentySecondsAndTakesNoLaterAnswer) {
  open();
  platform.service->withhold("startHls");
  int arrivals = 0;
  SocketRequestHandler::AnswerHandler onArrival = [&](const Dictionary&) { ++arrivals; };
  const auto result =
      platform.start(handler->prepareAndSendRequest(LocalEvent::startHls, {}, {}, onArrival));
  platform.advance(19'999ms);
  EXPECT_FALSE(*result);
  platform.advance(1ms);
  ASSERT_TRUE(*result);
  EXPECT_EQ(**result, (Dictionary{{"ACK_STATUS", "no ack"}}));
  platform.service->answerLate("startHls", ScriptedService::ok());
  platform.advance(60s);
  EXPECT_EQ(arrivals, 1);
  EXPECT_EQ(**result, (Dictionary{{"ACK_STATUS", "no ack"}}));
}

TEST_F(SocketRequestHandlerTest, requestsWhileTheSocketIsAwayEndAtOnce) {
  EXPECT_EQ(platform.run(handler->prepareAndSendRequest(LocalEvent::startHls)),
            (Dictionary{{"ACK_STATUS", "disconnected"}}));
  EXPECT_THAT(platform.service->requests(), IsEmpty());

  const auto unconnected =
      std::make_shared<SocketRequestHandler>(MeetingData{}, std::make_shared<Connections>());
  EXPECT_EQ(platform.run(unconnected->prepareAndSendRequest(LocalEvent::startHls)), Dictionary());
}

TEST_F(SocketRequestHandlerTest, dropsWhatCannotTravelAsJson) {
  open();
  const Dictionary rows[] = {{{"a", NAN}},
                             {{"deep", {{"list", {1, {{"b", INFINITY}}}}}}},
                             {{"text", "\xff\xfe"}},
                             {{"\xc3\x28", 1}}};
  for (const auto& data : rows)
    EXPECT_EQ(platform.run(handler->prepareAndSendRequest(LocalEvent::pubsubPublish, data)),
              Dictionary());
  EXPECT_EQ(platform.traces.count(
                "Dropping pubsubPublish: the request payload is not JSON-encodable. Values passed "
                "to the SDK — metaData, pubsub options and payload — must contain only String, "
                "Number, Bool, Array, Dictionary or NSNull."),
            4);
  EXPECT_THAT(platform.service->requests(), IsEmpty());
}

TEST_F(SocketRequestHandlerTest, onlyAManualLeaveIsToldInWords) {
  open();
  const std::pair<std::optional<LeaveReason>, Dictionary> rows[] = {
      {LeaveReason::manualLeaveCalled, {{"leaveReason", "Participant manually left the meeting"}}},
      {LeaveReason::roomClose, {}},
      {std::nullopt, {}}};
  for (const auto& [reason, data] : rows) {
    platform.run(handler->closeRoom(reason));
    EXPECT_EQ(platform.service->last("closeRoom"), data);
  }
  handler->definePeerLeftReason("BYE");
  EXPECT_EQ(platform.service->last("definePeerLeftReason"), (Dictionary{{"leaveReason", "BYE"}}));
  EXPECT_FALSE(platform.service->requests().back().wantsAnswer);
  socket().drop();
  handler->definePeerLeftReason("BYE");
  EXPECT_EQ(platform.service->count("definePeerLeftReason"), 1);
  EXPECT_TRUE(platform.traces.has("Leave reason not reported: the socket is not connected."));
}

TEST_F(SocketRequestHandlerTest, clientEventsBecomeStatesAndReasons) {
  using Drive = std::function<void(SocketRequestHandlerTest&)>;
  const auto greet = [](auto& t) { t.socket().open(), t.platform.advance(100ms); };
  struct Row {
    const char* what;
    Drive drive;
    std::vector<std::string> heard;
  };
  const Row rows[] = {
      {"a refused entry is no connection",
       [&](auto& t) { t.ear->enters = false, greet(t); },
       {"socketConnected"}},
      {"two greetings enter twice",
       [&](auto& t) { greet(t), greet(t); },
       {"socketConnected", "state CONNECTED", "socketConnected", "state CONNECTED"}},
      {"plain drop",
       [&](auto& t) { t.socket().fail(); },
       {"state DISCONNECTED", "disconnected websocketDisconnected"}},
      {"exhausted",
       [&](auto& t) { t.socket().drop(), t.socket().fail(); },
       {"state RECONNECTING", "state DISCONNECTED",
        "disconnected websocketConnectionAttemptsExhausted"}},
      {"a drop that was overcome is forgotten",
       [&](auto& t) { t.socket().drop(), greet(t), t.take(), t.socket().fail(); },
       {"state DISCONNECTED", "disconnected websocketDisconnected"}},
      {"local",
       [&](auto& t) { t.handler->disconnect(LeaveReason::manualLeaveCalled); },
       {"state DISCONNECTED", "disconnected manualLeaveCalled"}},
      {"local while reconnecting",
       [&](auto& t) { t.socket().drop(), t.handler->disconnect(LeaveReason::roomClose); },
       {"state DISCONNECTED", "disconnected roomClose"}},
      {"local, told as exhausted",
       [&](auto& t) { t.handler->disconnect(LeaveReason::websocketConnectionAttemptsExhausted); },
       {"state DISCONNECTED", "disconnected websocketConnectionAttemptsExhausted"}},
      {"local, when the connection is gone already",
       [&](auto& t) { t.socket().fail(), t.take(), t.handler->disconnect(LeaveReason::roomClose); },
       {}},
      {"errors",
       [&](auto& t) {
         for (const Value& item : {Value("text"), Value{{"message", "no"}}, Value(7)})
           t.socket().raise(SocketClientEvent::error, {item});
         t.socket().raise(SocketClientEvent::error);
       },
       {"error text", R"(error {"message":"no"})"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    SocketRequestHandlerTest_clientEventsBecomeStatesAndReasons_Test own;
    own.take();
    row.drive(own);
    EXPECT_THAT(own.take(), testing::UnorderedElementsAreArray(row.heard));
  }
}

TEST_F(SocketRequestHandlerTest, aGreetingAfterTheHandlerWentDoesNothing) {
  take();
  const auto alive = platform.service->socket();
  alive->open();
  platform.pump();
  handler.reset();
  platform.advance(1s);
  EXPECT_THAT(take(), IsEmpty());
}

TEST_F(SocketRequestHandlerTest, answersServerEventsByTheirMethod) {
  open();
  const auto send = [&](const char* event, Value item) {
    const auto pushed = socket().push(event, std::move(item));
    platform.pump();
    return pushed->acknowledged ? boost::json::serialize(pushed->value()) : "unanswered";
  };
  struct Row {
    const char* event;
    Value item;
    std::string answer;
    std::vector<std::string> heard;
  };
  const Value chat{{"method", "recordingStarted"}};
  const Value stats{{"method", "statsData"}};
  const Value consumer{{"method", "newConsumer"}};
  const Row rows[] = {
      {"notification", chat, "{}", {"event recordingStarted"}},
      {"newConsumer", consumer, R"([""])", {"newConsumer"}},
      {"statsData", stats, R"({"rtt":7})", {"statsData"}},
      {"statsData", chat, "{}", {"event recordingStarted"}},
      {"notification", {{"method", "mediaRelayStarted"}}, "unanswered", {}},
      {"notification", {{"method", 5}}, "unanswered", {}},
      {"notification", "text", "unanswered", {}},
      {"somethingElse", chat, "unanswered", {"event recordingStarted"}},
      {"somethingElse", consumer, "unanswered", {"newConsumer"}},
      {"batchNotification",
       {{"notifications", List{chat, "rubbish", stats, consumer, Dictionary(), chat}}},
       "{}",
       {"event recordingStarted", "statsData", "newConsumer", "event recordingStarted"}},
      {"batchNotification", {{"notifications", 7}}, "{}", {}},
      {"batchNotification", nullptr, "{}", {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.event + (" " + boost::json::serialize(row.item)));
    EXPECT_EQ(send(row.event, row.item), row.answer);
    EXPECT_EQ(take(), row.heard);
  }
  EXPECT_TRUE(platform.traces.has(
      "Ack-requiring event 'statsData' arrived inside a batchNotification; its ack cannot be "
      "delivered."));
  ear->consumes = false;
  EXPECT_EQ(send("newConsumer", consumer), "unanswered");
  EXPECT_TRUE(platform.traces.has("Error while creating consumer: no codec"));
  ear.reset();
  EXPECT_EQ(send("notification", chat), "unanswered") << "nobody listens";
}

}  // namespace
}  // namespace kestrova::test
