#include <gtest/gtest.h>

#include "NodeServer.h"
#include "Probe.h"
#include <thread>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;

std::string portOption(int port) {
  return "\"port\":" + std::to_string(port);
}

TEST(SocketIOLoss, returnsToARestartedServerAndCountsAnew) {
  auto server = std::make_unique<NodeServer>();
  const int port = server->port();
  auto config = Probe::quickConfig();
  config.reconnectAttempts = 1000;
  SocketManagerOptions options;
  options.lastingTime = 0ms;
  Probe probe(server->url(), config, options);
  ASSERT_TRUE(probe.connect());
  for (std::size_t round = 1; round <= 2; ++round) {
    server->kill();
    ASSERT_TRUE(probe.log->waitFor("reconnect ", round));
    EXPECT_EQ(probe.client->status(), SocketIOStatus::connecting);
    probe.client->emit("note", {json("\"lost\"")});
    EXPECT_EQ(probe.ask("echo", {}, 1h), SocketItems{json("\"DISCONNECTED\"")});
    server = std::make_unique<NodeServer>(portOption(port));
    ASSERT_TRUE(probe.log->waitFor("event connectionSuccess", round + 1));
    EXPECT_EQ(probe.log->count("reconnect "), round);
    EXPECT_EQ(probe.log->count("reconnectAttempt 1000"), round);
    const auto notes = probe.ask("notes");
    EXPECT_EQ(notes, SocketItems{json("[]")});
  }
  EXPECT_EQ(probe.log->count("disconnect"), 0u);
  EXPECT_EQ(probe.log->count("error"), 0u);
}

TEST(SocketIOLoss, acknowledgementsEndBeforeItIsTold) {
  NodeServer server;
  for (const char* cause : {"cut", "kick", "disconnect"}) {
    SCOPED_TRACE(cause);
    Probe probe(server.url());
    ASSERT_TRUE(probe.connect());
    auto ask = [&, log = probe.log](const std::string& name) {
      probe.client->emitWithAck("nothing", {}, 1h, [log, name](const SocketItems& items) {
        log->add(name + " " + show(items));
      });
    };
    ask("first");
    ask("second");
    if (std::string(cause) == "disconnect")
      probe.client->disconnect();
    else
      probe.client->emit(cause, {});
    const bool comesBack = std::string(cause) == "cut";
    ASSERT_TRUE(probe.log->waitFor(comesBack ? "reconnect " : "disconnect "));
    auto lines = probe.log->lines();
    ASSERT_GE(lines.size(), 5u);
    EXPECT_EQ(lines[2], R"(first "DISCONNECTED")");
    EXPECT_EQ(lines[3], R"(second "DISCONNECTED")");
    if (comesBack) {
      ASSERT_TRUE(probe.log->waitFor("event connectionSuccess", 2));
      EXPECT_EQ(probe.ask("echo", {json("1")}), SocketItems{json("1")});
    } else {
      probe.queue->async([&] {
        ask("late");
        probe.log->add("asked");
      });
      ASSERT_TRUE(probe.log->waitFor("late"));
      lines = probe.log->lines();
      EXPECT_EQ(lines[lines.size() - 2], "asked");
      EXPECT_EQ(lines.back(), R"(late "DISCONNECTED")");
    }
  }
}

TEST(SocketIOLoss, silenceIsALoss) {
  NodeServer server(R"("pingInterval":50,"pingTimeout":100)");
  SocketManagerOptions options;
  options.shortestPing = 10ms;
  Probe probe(server.url(), Probe::quickConfig(), options);
  ASSERT_TRUE(probe.connect());
  const auto start = std::chrono::steady_clock::now();
  server.stop();
  ASSERT_TRUE(probe.log->waitFor("reconnect "));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 90ms);
  EXPECT_EQ(probe.log->lines().at(2), R"(reconnect "ping timeout")");
  server.resume();
  EXPECT_TRUE(probe.log->waitFor("event connectionSuccess", 2));
}

TEST(SocketIOLoss, refusalIsAnErrorAndTheEnd) {
  NodeServer server;
  auto config = Probe::quickConfig();
  config.connectParams = {{"refuse", "1"}};
  Probe probe(server.url(), config);
  probe.client->connect();
  ASSERT_TRUE(probe.log->waitFor("disconnect"));
  const auto lines = probe.log->lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], R"(error {"message":"not for you","data":{"code":4001}})");
}

TEST(SocketIOLoss, firstConnectThatFailsIsTriedAgain) {
  auto server = std::make_unique<NodeServer>();
  const int port = server->port();
  const auto url = server->url();
  server->kill();
  auto config = Probe::quickConfig();
  config.reconnectAttempts = -1;
  Probe probe(url, config);
  probe.client->connect();
  ASSERT_TRUE(probe.log->waitFor("reconnectAttempt -1", 2));
  server = std::make_unique<NodeServer>(portOption(port));
  ASSERT_TRUE(probe.log->waitFor("event connectionSuccess"));
  EXPECT_TRUE(probe.log->lines().at(0).starts_with("error "));
  EXPECT_TRUE(probe.log->lines().at(1).starts_with("reconnect "));
  EXPECT_EQ(probe.log->count("error"), 1u);
  EXPECT_EQ(probe.log->count("reconnect "), 1u);
}

}  // namespace
}  // namespace kestrova::test
