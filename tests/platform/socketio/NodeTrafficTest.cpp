#include <gtest/gtest.h>

#include "NodeServer.h"
#include "Probe.h"

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;

TEST(SocketIOTraffic, itemsTravelBothWaysUnchanged) {
  NodeServer server(R"("maxHttpBufferSize":5000000)");
  Probe probe(server.url());
  ASSERT_TRUE(probe.connect());
  EXPECT_EQ(probe.client->status(), SocketIOStatus::connected);

  const std::string big(3'000'000, 'b');
  const SocketItems batches[] = {
      {},
      {json("null"), json("true"), json("-1"), json("\"\\u0000é\\ud83d\\ude00\\n\"")},
      {json(R"({"nested":{"list":[1,[2,{}]]},"n":9007199254740991})")},
      {bytes("abc"), json("{\"between\":1}"), bytes(""), bytes(std::string("\0\xff", 2))},
      {bytes(big)},
      // Where the form of a frame's length changes.
      {bytes(std::string(125, 'x')), bytes(std::string(126, 'x')), bytes(std::string(65'535, 'x')),
       bytes(std::string(65'536, 'x'))},
  };
  for (const auto& items : batches)
    EXPECT_EQ(probe.ask("echo", items), items) << show(items).substr(0, 100);

  // The server asks; the answer comes back to it and from there to us.
  probe.client->on("question", [](const SocketItems& items, std::shared_ptr<SocketAckEmitter> ack) {
    EXPECT_TRUE(ack->expected());
    ack->with(items);
    ack->with({json("\"second answers do nothing\"")});
  });
  probe.client->on("answered", [](const SocketItems&, std::shared_ptr<SocketAckEmitter> ack) {
    EXPECT_FALSE(ack->expected());
    ack->with({});
  });
  probe.client->emit("ask", {json("\"question\""), json("{\"a\":1}"), bytes("xyz")});
  ASSERT_TRUE(probe.log->waitFor("event answered"));
  EXPECT_EQ(probe.log->lines().back(), R"(event answered {"a":1} <3:xyz>)");
  EXPECT_EQ(probe.log->count("event answered"), 1u);
}

TEST(SocketIOTraffic, orderIsKept) {
  NodeServer server;
  Probe probe(server.url());
  ASSERT_TRUE(probe.connect());
  constexpr int count = 500;
  std::vector<std::int64_t> answered;
  for (int i = 0; i < count; ++i) {
    SocketItems items{Value(i)};
    if (i % 7 == 0) items.push_back(SocketBytes(static_cast<std::size_t>(i)));
    probe.client->emit("note", {Value(std::to_string(i))});
    probe.client->emitWithAck("echo", std::move(items), 10s, [&](const SocketItems& got) {
      answered.push_back(std::get<Value>(got.at(0)).to_number<std::int64_t>());
    });
  }
  const auto notes = probe.ask("notes");
  probe.settle();
  ASSERT_TRUE(notes);
  const auto& list = std::get<Value>(notes->at(0)).as_array();
  ASSERT_EQ(list.size(), static_cast<std::size_t>(count));
  ASSERT_EQ(answered.size(), static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    EXPECT_EQ(list[static_cast<std::size_t>(i)].as_string(), std::to_string(i));
    EXPECT_EQ(answered[static_cast<std::size_t>(i)], i);
  }
}

TEST(SocketIOTraffic, pingsAreAnswered) {
  NodeServer server(R"("pingInterval":40,"pingTimeout":60)");
  Probe probe(server.url());
  ASSERT_TRUE(probe.connect());
  // Unanswered, the server would hang up after 100 ms.
  EXPECT_EQ(probe.ask("heartbeats", {json("5")}), SocketItems{json("5")});
  EXPECT_EQ(probe.log->count("reconnect"), 0u);
}

}  // namespace
}  // namespace kestrova::test
