#include <boost/asio/write.hpp>
#include <gtest/gtest.h>
#include <poll.h>

#include "Probe.h"
#include "ScriptedServer.h"
#include <future>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;

struct Rubbish {
  const char* name;
  std::vector<std::string> messages;  ///< a leading '<' marks a binary one
};

void sendAll(ScriptedPeer& peer, const Rubbish& rubbish) {
  for (const auto& message : rubbish.messages) {
    if (message.starts_with('<'))
      peer.bytes(message.substr(1));
    else
      peer.text(message);
  }
}

std::string nested(std::size_t depth) {
  return std::string(R"(42["x",)").append(depth, '[').append(depth, ']').append("]");
}

// The first connection sends rubbish; that it was taken for a loss shows in the second being made.
TEST(SocketIORubbish, endsTheConnectionAsALoss) {
  const Rubbish cases[] = {
      {"no type", {""}},
      {"unknown type", {"9"}},
      {"no packet", {"4"}},
      {"unknown packet", {"47[]"}},
      {"event without body", {"42"}},
      {"event without list", {"42{}"}},
      {"event without name", {"42[]"}},
      {"event with a number for a name", {"42[1]"}},
      {"broken JSON", {R"(42["x",)"}},
      {"something behind the JSON", {R"(42["x"]y)"}},
      {"deep nesting", {nested(100'000)}},
      {"text that is not UTF-8", {"42[\"\xff\"]"}},
      {"ack without number", {"43[]"}},
      {"ack with a number beyond all bounds", {"4399999999999999999999999[]"}},
      {"attachment that nobody announced", {"<abc"}},
      {"text in the place of an attachment",
       {R"(451-["x",{"_placeholder":true,"num":0}])", R"(42["x"])"}},
      {"too many attachments", {R"(4599999999999-["x"])"}},
      {"attachments without dash", {R"(451["x"])"}},
      {"placeholder out of range", {R"(451-["x",{"_placeholder":true,"num":1}])"}},
      {"negative placeholder", {R"(451-["x",{"_placeholder":true,"num":-1}])"}},
      {"placeholder without number", {R"(451-["x",{"_placeholder":true}])"}},
      {"one attachment in two places",
       {R"(451-["x",{"_placeholder":true,"num":0},{"_placeholder":true,"num":0}])"}},
      {"text over the limit", {std::string(R"(42["x",")").append(70'000, 'y').append("\"]")}},
      {"attachments over the limit",
       {R"(452-["x"])", std::string("<").append(40'000, 'y'),
        std::string("<").append(40'000, 'y')}},
      {"second handshake", {R"(0{"sid":"s","pingInterval":1000,"pingTimeout":1000})"}},
  };
  for (const auto& rubbish : cases) {
    SCOPED_TRACE(rubbish.name);
    ScriptedServer server({[&](ScriptedPeer& peer) {
                             peer.welcome();
                             sendAll(peer, rubbish);
                             peer.linger();
                           },
                           [](ScriptedPeer& peer) {
                             peer.welcome();
                             peer.linger();
                           }});
    SocketManagerOptions options;
    options.maxIncomingBytes = 64 * 1024;
    Probe probe(server.url(), Probe::quickConfig(), options);
    probe.client->connect();
    EXPECT_TRUE(probe.log->waitFor("connect ", 2));
    EXPECT_EQ(probe.log->count("reconnect "), 1u);
    EXPECT_EQ(probe.log->count("event"), 0u);
    EXPECT_EQ(probe.log->count("disconnect"), 0u);
  }
}

TEST(SocketIORubbish, isPassedOverWhereItDoesNoHarm) {
  const Rubbish cases[] = {
      {"unknown ack", {"43123456[]", "461-9[{\"_placeholder\":true,\"num\":0}]", "<x"}},
      {"other namespace", {R"(42/other,["x"])", R"(451-/other,["x"])", "<y", R"(41/other)"}},
      {"noop, pong and upgrade", {"6", "3", "5"}},
      {"second welcome", {R"(40{"sid":"again"})"}},
      {"late refusal", {R"(44{"message":"no"})"}},
  };
  for (const auto& rubbish : cases) {
    SCOPED_TRACE(rubbish.name);
    ScriptedServer server({[&](ScriptedPeer& peer) {
      peer.welcome();
      sendAll(peer, rubbish);
      peer.text(R"(42["fine",1e400,-0,18446744073709551615])");
      peer.linger();
    }});
    Probe probe(server.url());
    probe.client->connect();
    EXPECT_TRUE(probe.log->waitFor("event fine"));
    EXPECT_EQ(probe.log->lines().size(), 2u);
  }
}

TEST(SocketIOHandshake, thatMakesNoSenseIsAFailedConnect) {
  const char* openings[] = {"",
                            "2",
                            "0",
                            "0[]",
                            R"(0{"sid":"s"})",
                            R"(0{"sid":"s","pingInterval":-1,"pingTimeout":5})",
                            R"(0{"sid":"s","pingInterval":1e300,"pingTimeout":5})",
                            R"(42["x"])"};
  for (const char* opening : openings) {
    SCOPED_TRACE(opening);
    ScriptedServer server({[&](ScriptedPeer& peer) {
      peer.accept();
      peer.text(opening);
      peer.linger();
    }});
    auto config = Probe::quickConfig();
    config.reconnects = false;
    Probe probe(server.url(), config);
    probe.client->connect();
    EXPECT_TRUE(probe.log->waitFor("disconnect"));
    const auto lines = probe.log->lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(lines[0].starts_with("error ")) << lines[0];
  }
}

TEST(SocketIOHandshake, neverFinishedTimesOut) {
  const std::pair<const char*, ScriptedServer::Script> stages[] = {
      {"TCP only",
       [](ScriptedPeer& peer) {
         char c;
         while (peer.socket().read_some(boost::asio::buffer(&c, 1)) > 0) {
         }
       }},
      {"WebSocket only",
       [](ScriptedPeer& peer) {
         peer.accept();
         peer.linger();
       }},
      {"no answer from the namespace", [](ScriptedPeer& peer) {
         peer.accept();
         peer.text(R"(0{"sid":"s","pingInterval":25000,"pingTimeout":20000})");
         peer.linger();
       }}};
  for (const auto& [name, script] : stages) {
    SCOPED_TRACE(name);
    ScriptedServer server({script});
    auto config = Probe::quickConfig();
    config.reconnects = false;
    SocketManagerOptions options;
    options.connectTimeout = 100ms;
    Probe probe(server.url(), config, options);
    probe.client->connect();
    EXPECT_TRUE(probe.log->waitFor("disconnect"));
    EXPECT_EQ(probe.log->lines().front(), R"(error "connecting took too long")");
  }
}

TEST(SocketIOHandshake, declinedSaysWhyButNotWhatWasAsked) {
  ScriptedServer server({[](ScriptedPeer& peer) {
    const std::string answer = "HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n";
    char buffer[4096];
    peer.socket().read_some(boost::asio::buffer(buffer));
    boost::asio::write(peer.socket(), boost::asio::buffer(answer));
  }});
  auto config = Probe::quickConfig();
  config.reconnects = false;
  config.connectParams = {{"secret", "hush"}};
  Probe probe(server.url(), config);
  probe.client->connect();
  ASSERT_TRUE(probe.log->waitFor("disconnect"));
  EXPECT_EQ(probe.log->lines().front(), R"(error "the server answered with HTTP status 403")");
  for (const auto& line : probe.log->lines()) EXPECT_EQ(line.find("hush"), std::string::npos);
}

TEST(SocketIOClose, isBoundedWhenTheServerDoesNotListen) {
  std::promise<void> closed;
  ScriptedServer server({[&](ScriptedPeer& peer) {
    peer.welcome();
    // Says nothing more and does not answer the closing either, until the client hangs up.
    ::pollfd waiting{peer.socket().native_handle(), POLLRDHUP, 0};
    ::poll(&waiting, 1, 5000);
    if (waiting.revents & (POLLRDHUP | POLLHUP)) closed.set_value();
  }});
  SocketManagerOptions options;
  options.closeTimeout = 50ms;
  Probe probe(server.url(), Probe::quickConfig(), options);
  probe.client->connect();
  ASSERT_TRUE(probe.log->waitFor("connect"));
  // More than the socket's buffers hold, so that the farewell is stuck behind it.
  for (int i = 0; i < 16; ++i) probe.client->emit("x", {SocketBytes(1 << 20)});
  probe.manager->disconnect();
  EXPECT_EQ(closed.get_future().wait_for(5s), std::future_status::ready);
  EXPECT_TRUE(probe.log->waitFor("disconnect"));
}

TEST(SocketIOLimits, whatTheServerWouldNotTakeIsNotSent) {
  ScriptedServer server({[](ScriptedPeer& peer) {
    peer.welcome(R"({"sid":"s","pingInterval":25000,"pingTimeout":20000,"maxPayload":100})");
    const auto first = peer.read();
    peer.text(boost::json::serialize(Value({"got", first})).insert(0, "42"));
    peer.linger();
  }});
  Probe probe(server.url());
  probe.client->connect();
  ASSERT_TRUE(probe.log->waitFor("connect"));
  probe.client->emit("long", {Value(std::string(200, 'x'))});
  probe.client->emit("blob", {SocketBytes(101)});
  probe.client->emit("short", {});
  ASSERT_TRUE(probe.log->waitFor("event got"));
  EXPECT_EQ(probe.log->lines().back(), R"(event got "42[\"short\"]")");
  EXPECT_EQ(probe.log->count("error"), 2u);
}

}  // namespace
}  // namespace kestrova::test
