#include <kestrova/platform/linux/socketio/SocketAcks.h>

#include <gtest/gtest.h>
#include <tests/support/ManualScheduler.h>

#include "Probe.h"

namespace kestrova::test {
namespace {

using namespace std::chrono_literals;

struct SocketAcksTest : ::testing::Test {
  std::uint64_t add(std::chrono::milliseconds timeout, const std::string& name,
                    std::uint64_t connection = 1) {
    return acks->add(connection, timeout,
                     [this, name](const SocketItems& items) { log.add(name + " " + show(items)); });
  }
  void advance(std::chrono::milliseconds time) {
    const auto limit = clock->now() + time;
    while (clock->runNext(limit)) {
    }
    settle();
  }
  void settle() {
    std::static_pointer_cast<SerialQueue>(queue)->sync([] {});
  }

  std::shared_ptr<ManualScheduler> clock = std::make_shared<ManualScheduler>();
  std::shared_ptr<Queue> queue = SerialQueue::make("acks");
  std::shared_ptr<SocketAcks> acks = std::make_shared<SocketAcks>(queue, clock);
  Log log;
};

TEST_F(SocketAcksTest, eachIsCalledOnceWhicheverComesFirst) {
  const auto slow = add(100ms, "slow");
  const auto quick = add(10ms, "quick");  // due before the one that the timer stands at
  const auto answered = add(50ms, "answered");
  add(std::chrono::milliseconds::max(), "patient");
  acks->resolve(answered, {json("1")});
  acks->resolve(answered, {json("2")});
  acks->resolve(12345, {});
  advance(10ms);
  acks->resolve(quick, {json("3")});
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"answered 1", R"(quick "NO ACK")"}));
  advance(89ms);
  EXPECT_EQ(log.lines().size(), 2u);
  advance(1ms);
  EXPECT_EQ(log.lines().back(), R"(slow "NO ACK")");
  acks->resolve(slow, {});
  advance(24h);
  EXPECT_EQ(log.lines().size(), 3u);
}

TEST_F(SocketAcksTest, endWithTheirConnectionAndInOrder) {
  add(1h, "a");
  const auto carried = add(1min, "next", 2);
  add(1s, "b");
  acks->end(1);
  add(1h, "c");  // its connection went while it was being sent
  settle();
  const std::vector<std::string> ended{R"(a "DISCONNECTED")", R"(b "DISCONNECTED")",
                                       R"(c "DISCONNECTED")"};
  EXPECT_EQ(log.lines(), ended);
  advance(59s);
  EXPECT_EQ(log.lines(), ended);
  acks->resolve(carried, {json("1")});
  acks->end(2);
  settle();
  EXPECT_EQ(log.lines().back(), "next 1");
  EXPECT_EQ(clock->pending(), 0u);
}

TEST_F(SocketAcksTest, answeredRequestsLeaveNoTimersBehind) {
  for (int i = 0; i < 1000; ++i) {
    acks->resolve(add(20s, "x"), {});
    advance(1ms);
  }
  EXPECT_EQ(log.lines().size(), 1000u);
  EXPECT_LE(clock->pending(), 1u);
}

}  // namespace
}  // namespace kestrova::test
