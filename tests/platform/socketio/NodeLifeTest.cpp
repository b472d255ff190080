#include <kestrova/platform/Runtime.h>

#include <gtest/gtest.h>

#include "NodeServer.h"
#include "Probe.h"
#include <filesystem>
#include <thread>

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;

std::size_t openFiles() {
  const std::filesystem::directory_iterator files("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(files), end(files)));
}

bool comesTrue(const std::function<bool()>& condition) {
  for (int i = 0; i < 500; ++i, std::this_thread::sleep_for(10ms))
    if (condition()) return true;
  return false;
}

TEST(SocketIOLife, whatWasEmittedBeforeDisconnectStillGoes) {
  NodeServer server;
  Probe witness(server.url());
  ASSERT_TRUE(witness.connect());
  Probe probe(server.url());
  ASSERT_TRUE(probe.connect());
  for (int i = 0; i < 20; ++i) probe.client->emit("note", {json(std::to_string(i)), bytes("x")});
  probe.client->disconnect();
  EXPECT_EQ(probe.client->status(), SocketIOStatus::disconnected);
  probe.client->emit("note", {json("\"too late\"")});
  probe.client->disconnect();
  ASSERT_TRUE(witness.log->waitFor("event left"));
  EXPECT_EQ(witness.log->lines().back(), R"(event left "client namespace disconnect")");
  const auto notes = witness.ask("notes");
  ASSERT_TRUE(notes);
  EXPECT_EQ(std::get<Value>(notes->at(0)).as_array().size(), 21u);
  probe.settle();
  EXPECT_EQ(probe.log->count("disconnect"), 1u);
  EXPECT_EQ(probe.log->count("reconnect"), 0u);
  EXPECT_TRUE(probe.connect());
}

TEST(SocketIOLife, disconnectAndConnectInOneBreath) {
  NodeServer server;
  Probe probe(server.url());
  for (int i = 0; i < 50; ++i) {
    probe.client->connect();
    probe.client->connect();
    if (i % 3 == 0) std::this_thread::yield();
    probe.client->disconnect();
  }
  ASSERT_TRUE(probe.connect());
  EXPECT_EQ(probe.log->count("disconnect"), 50u);
  EXPECT_EQ(probe.log->count("reconnect"), 0u);
  EXPECT_TRUE(probe.ask("echo"));
}

TEST(SocketIOLife, disconnectOnTheHandlersQueueIsToldBeforeItReturns) {
  NodeServer server;
  Probe probe(server.url());
  Log log;
  probe.client->on("connectionSuccess", [&](const SocketItems&, std::shared_ptr<SocketAckEmitter>) {
    probe.client->disconnect();
    log.add(probe.log->lines().back());
    probe.client->removeAllHandlers();
    probe.manager->disconnect();
  });
  probe.client->on("connectionSuccess", [&](const SocketItems&, std::shared_ptr<SocketAckEmitter>) {
    log.add("called after its removal");
  });
  probe.client->connect();
  ASSERT_TRUE(log.waitFor(R"(disconnect "the client disconnected")"));
  probe.settle();
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST(SocketIOLife, releaseClosesAndRaisesNothing) {
  NodeServer server;
  Probe witness(server.url());
  ASSERT_TRUE(witness.connect());
  const auto before = openFiles();
  auto config = Probe::quickConfig();
  Probe probe(server.url(), config);
  ASSERT_TRUE(probe.connect());
  Log answers;
  auto pending = [&](const SocketItems& items) { answers.add(show(items)); };
  probe.client->emitWithAck("nothing", {}, 1h, pending);
  probe.manager.reset();
  // Nobody would end the wait otherwise.
  EXPECT_TRUE(answers.waitFor("\"DISCONNECTED\""));
  EXPECT_TRUE(witness.log->waitFor("event left"));
  EXPECT_TRUE(comesTrue([&] { return openFiles() <= before; }));
  // The client that is still held is empty.
  probe.client->connect();
  probe.client->emit("x", {});
  probe.client->emitWithAck("x", {}, 1h, pending);
  EXPECT_TRUE(answers.waitFor("\"DISCONNECTED\"", 2));
  probe.settle();
  EXPECT_EQ(probe.log->lines().size(), 2u);
}

TEST(SocketIOLife, releaseFromInsideAHandlerAndAtAnyStage) {
  NodeServer server;
  std::size_t connected = 0;
  {
    Probe first(server.url());  // also starts the threads, which stay
    ASSERT_TRUE(first.connect());
    connected = openFiles();
  }
  ASSERT_TRUE(comesTrue([&] { return openFiles() < connected; }));
  const auto before = openFiles();
  {
    Probe probe(server.url());
    Log log;
    probe.client->on("connectionSuccess",
                     [&](const SocketItems&, std::shared_ptr<SocketAckEmitter> ack) {
                       probe.client.reset();
                       probe.manager.reset();
                       ack->with({});
                       log.add("released");
                     });
    probe.client->connect();
    ASSERT_TRUE(log.waitFor("released"));
    probe.settle();
  }
  for (int i = 0; i < 60; ++i) {
    Probe probe(server.url());
    probe.client->connect();
    if (i % 4) std::this_thread::sleep_for(std::chrono::microseconds(i * 50));
  }
  server.kill();
  // While it waits for its next attempt.
  Probe probe(server.url());
  probe.client->connect();
  ASSERT_TRUE(probe.log->waitFor("reconnect "));
  probe.manager.reset();
  EXPECT_TRUE(comesTrue([&] { return openFiles() <= before; }));
}

TEST(SocketIOLife, handlersHoldNothingAfterRelease) {
  NodeServer server;
  auto token = std::make_shared<int>(0);
  {
    Probe probe(server.url());
    probe.client->on("never", [token](const SocketItems&, std::shared_ptr<SocketAckEmitter>) {});
    probe.client->emitWithAck("x", {}, 1h, [token](const SocketItems&) {});
    ASSERT_TRUE(probe.connect());
    probe.client->emitWithAck("nothing", {}, 1h, [token](const SocketItems&) {});
  }
  EXPECT_TRUE(comesTrue([&] { return token.use_count() == 1; }));
}

}  // namespace
}  // namespace kestrova::test
