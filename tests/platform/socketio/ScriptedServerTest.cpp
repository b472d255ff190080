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

// That the first connection was taken for lost shows in the second being made.
TEST(SocketIORubbish, endsTheConnectionBelowThePackets) {
  const Rubbish cases[] = {
      {"no type", {""}},
      {"unknown type", {"9"}},
      {"text that is not UTF-8", {"42[\"\xff\"]"}},
      {"second handshake", {R"(0{"sid":"s","pingInterval":1000,"pingTimeout":1000})"}},
      {"text over the limit", {std::string(R"(42["x",")").append(70'000, 'y').append("\"]")}},
  };
  for (const auto& rubbish : cases) {
    SCOPED_TRACE(rubbish.name);
    std::promise<std::uint16_t> code;
    ScriptedServer server({[&](ScriptedPeer& peer) {
                             peer.welcome();
                             sendAll(peer, rubbish);
                             code.set_value(peer.closeCode());
                           },
                           [](ScriptedPeer& peer) {
                             peer.welcome();
                             peer.linger();
                           }});
    auto config = Probe::quickConfig();
    config.maxMessageBytes = 64 * 1024;
    Probe probe(server.url(), config);
    probe.client->connect();
    EXPECT_TRUE(probe.log->waitFor("connect ", 2));
    EXPECT_EQ(probe.log->count("reconnect "), 1u);
    EXPECT_EQ(probe.log->count("event"), 0u);
    EXPECT_EQ(probe.log->count("disconnect"), 0u);
    if (rubbish.messages[0].size() > config.maxMessageBytes) {
      EXPECT_EQ(code.get_future().get(), 1009);
    }
  }
}

TEST(SocketIORubbish, isLeftOutAndTheConnectionLives) {
  struct Case : Rubbish {
    std::size_t traces = 1;
  };
  const Case cases[] = {
      {{"no packet", {"4"}}},
      {{"unknown packet", {"47[]"}}},
      {{"event without body", {"42"}}},
      {{"event without list", {"42{}"}}},
      {{"event without name", {"42[]"}}},
      {{"event with a number for a name", {"42[1]", "427[1]"}}, 2},
      {{"broken JSON", {R"(42["x",)"}}},
      {{"something behind the JSON", {R"(42["x"]y)"}}},
      {{"deep nesting", {nested(100'000)}}},
      {{"ack without number", {"43[]"}}},
      {{"ack with a number beyond all bounds", {"4399999999999999999999999[]"}}},
      {{"attachment that nobody announced", {"<abc"}}},
      {{"text in the place of an attachment", {R"(451-["x",{"_placeholder":true,"num":0}])"}}},
      {{"too many attachments", {R"(4599999999999-["x"])", "<dropped"}}},
      {{"placeholder out of range", {R"(451-["x",{"_placeholder":true,"num":1}])", "<dropped"}}},
      {{"placeholder without number", {R"(451-["x",{"_placeholder":true}])", "<dropped"}}},
      {{"one attachment in two places",
        {R"(452-["x",{"_placeholder":true,"num":0},{"_placeholder":true,"num":0}])", "<a", "<b"}}},
      {{"attachments over the limit",
        {R"(453-["x"])", std::string("<").append(40'000, 'y'), std::string("<").append(40'000, 'y'),
         "<c"}}},
      {{"unknown ack", {"43123456[]", "461-9[{\"_placeholder\":true,\"num\":0}]", "<x"}}, 0},
      {{"other namespace", {R"(42/other,["x"])", R"(451-/other,["x"])", "<y", R"(41/other)"}}, 0},
      {{"noop, pong and upgrade", {"6", "3", "5"}}, 0},
      {{"second welcome", {R"(40{"sid":"again"})"}}, 0},
      {{"late refusal", {R"(44{"message":"no"})"}}, 0},
  };
  for (const auto& rubbish : cases) {
    SCOPED_TRACE(rubbish.name);
    ScriptedServer server({[&](ScriptedPeer& peer) {
      peer.welcome();
      sendAll(peer, rubbish);
      peer.text(R"(451-["fine",{"_placeholder":true,"num":0},-0,18446744073709551615])");
      peer.bytes("abc");
      peer.linger();
    }});
    auto config = Probe::quickConfig();
    config.maxMessageBytes = 64 * 1024;
    if (rubbish.messages[0].size() > config.maxMessageBytes) config.maxMessageBytes = 1 << 20;
    Probe probe(server.url(), config);
    probe.client->connect();
    ASSERT_TRUE(probe.log->waitFor("event fine <3:abc> 0 18446744073709551615"));
    EXPECT_EQ(probe.log->count("trace Socket packet left out: "), rubbish.traces);
    EXPECT_EQ(probe.log->lines().size(), 2 + rubbish.traces);
  }
}

TEST(SocketIORubbish, oddTextIsReadInEventsAndAnswers) {
  // What stands in the list, and what is read.
  const std::pair<std::string, std::string> cases[] = {
      {R"("\ud83d")", "\"\xef\xbf\xbd\""},
      {R"({"a\udc00":["\ud83d\ude00","\\ud83d"]})",
       "{\"a\xef\xbf\xbd\":[\"\xf0\x9f\x98\x80\",\"\\\\ud83d\"]}"},
      {"[1e999,-1e999]", "[1.7976931348623157E308,-1.7976931348623157E308]"},
      {std::string(60, '[') + std::string(60, ']'), std::string(60, '[') + std::string(60, ']')},
      {std::string(990, '[') + std::string(990, ']'),
       std::string(990, '[') + std::string(990, ']')},
  };
  for (const auto& [written, read] : cases) {
    SCOPED_TRACE(written.substr(0, 70));
    ScriptedServer server({[&](ScriptedPeer& peer) {
      peer.welcome();
      peer.text(R"(42["odd",)" + written + "]");
      EXPECT_EQ(peer.read(), R"(420["q"])");
      peer.text("430[" + written + "]");
      EXPECT_EQ(peer.read(), "42[\"back\"," + read + "]");
      peer.linger();
    }});
    Probe probe(server.url());
    probe.client->connect();
    ASSERT_TRUE(probe.log->waitFor("event odd"));
    EXPECT_EQ(probe.log->lines().back(), "event odd " + read);
    const auto answer = probe.ask("q");
    ASSERT_TRUE(answer);
    EXPECT_EQ(show(*answer), read);
    probe.client->emit("back", *answer);
    EXPECT_EQ(probe.log->count("reconnect"), 0u);
  }
}

TEST(SocketIORubbish, inAnAnswerEndsItsWaiter) {
  const Rubbish cases[] = {
      {"no JSON", {"430[nul]"}},
      {"no list", {"430{}"}},
      {"no body", {"430"}},
      {"placeholder out of range", {R"(461-0[{"_placeholder":true,"num":4}])", "<x"}},
      {"attachments that do not come", {R"(461-0[{"_placeholder":true,"num":0}])"}},
      {"attachments over the limit",
       {R"(462-0[{"_placeholder":true,"num":0}])", std::string("<").append(60, 'y'),
        std::string("<").append(60, 'y')}},
  };
  for (const auto& rubbish : cases) {
    SCOPED_TRACE(rubbish.name);
    ScriptedServer server({[&](ScriptedPeer& peer) {
      peer.welcome();
      EXPECT_EQ(peer.read(), R"(420["q"])");
      sendAll(peer, rubbish);
      peer.text(R"(42["next"])");
      EXPECT_EQ(peer.read(), R"(421["q"])");
      peer.text("431[1]");
      peer.linger();
    }});
    auto config = Probe::quickConfig();
    config.maxMessageBytes = 99;
    Probe probe(server.url(), config);
    probe.client->connect();
    ASSERT_TRUE(probe.log->waitFor("connect "));
    EXPECT_EQ(probe.ask("q"), SocketItems{});
    EXPECT_EQ(probe.ask("q"), SocketItems{json("1")});
    EXPECT_EQ(probe.log->count("reconnect"), 0u);
  }
}

TEST(SocketIOHandshake, thatMakesNoSenseIsAFailedConnect) {
  const char* openings[] = {
      "", "2", "0", "0[]", R"(0{"pingInterval":25000,"pingTimeout":20000})", R"(42["x"])"};
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
  for (int i = 0; i < 14; ++i) probe.client->emit("x", {SocketBytes(1 << 20)});
  probe.manager->disconnect();
  EXPECT_EQ(closed.get_future().wait_for(5s), std::future_status::ready);
  EXPECT_TRUE(probe.log->waitFor("disconnect"));
}

TEST(SocketIOLoss, rightAfterEveryHandshakeExhaustsTheAttempts) {
  ScriptedServer server({[](ScriptedPeer& peer) { peer.welcome(); }});
  auto config = Probe::quickConfig();
  config.reconnectAttempts = 3;
  Probe probe(server.url(), config);
  probe.client->connect();
  ASSERT_TRUE(probe.log->waitFor("disconnect"));
  EXPECT_EQ(probe.log->count("connect "), 4u);
  for (const char* remaining : {"3", "2", "1"})
    EXPECT_EQ(probe.log->count(std::string("reconnectAttempt ") + remaining), 1u) << remaining;
}

TEST(SocketIOLimits, whatCannotBeSentLosesTheConnection) {
  struct Case {
    const char* reason;
    std::size_t messages;
    std::size_t size;
  };
  for (const auto& [reason, messages, size] :
       {Case{R"(reconnect "the network takes nothing more")", 14, 1 << 20},
        Case{R"(reconnect "too much waits to be sent")", 1, 17 << 20}}) {
    SCOPED_TRACE(reason);
    ScriptedServer server({[](ScriptedPeer& peer) {
                             peer.welcome();
                             ::pollfd waiting{peer.socket().native_handle(), POLLRDHUP, 0};
                             ::poll(&waiting, 1, 10'000);
                           },
                           [](ScriptedPeer& peer) {
                             peer.welcome();
                             peer.linger();
                           }});
    SocketManagerOptions options;
    options.stallTimeout = 100ms;
    Probe probe(server.url(), Probe::quickConfig(), options);
    probe.client->connect();
    ASSERT_TRUE(probe.log->waitFor("connect"));
    for (std::size_t i = 1; i < messages; ++i) probe.client->emit("x", {SocketBytes(size)});
    EXPECT_EQ(probe.ask("x", {SocketBytes(size)}, 1h), SocketItems{json("\"DISCONNECTED\"")});
    ASSERT_TRUE(probe.log->waitFor("connect ", 2));
    EXPECT_EQ(probe.log->lines().at(1), reason);
  }
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
  EXPECT_EQ(probe.ask("blob", {SocketBytes(101)}, 1h), SocketItems{});
  probe.client->emit("short", {});
  ASSERT_TRUE(probe.log->waitFor("event got"));
  EXPECT_EQ(probe.log->lines().back(), R"(event got "42[\"short\"]")");
  EXPECT_EQ(probe.log->count("error"), 2u);
}

}  // namespace
}  // namespace kestrova::test
