#include <kestrova/platform/AsyncLock.h>
#include <kestrova/platform/Queue.h>

#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_future.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/TestPlatform.h>

#include <atomic>
#include <future>
#include <thread>

namespace kestrova::test {
namespace {

using testing::ElementsAre;

TEST(SerialQueueTest, runsItsWorkInOrderAndNeverInside) {
  TestPlatform platform;
  const auto queue = SerialQueue::make("q");
  std::vector<std::string> order;
  queue->async([&] {
    order.emplace_back("first");
    EXPECT_TRUE(queue->isCurrent());
    queue->async([&] { order.emplace_back("nested"); });
    throw std::runtime_error("work that fails stops nothing");
  });
  queue->async([&] { order.emplace_back("second"); });
  EXPECT_TRUE(order.empty());
  queue->sync([&] { order.emplace_back("sync"); });
  EXPECT_THAT(order, ElementsAre("first", "second", "sync"))
      << "what stood before runs on the caller's thread";
  EXPECT_FALSE(queue->isCurrent());
  platform.pump();
  EXPECT_EQ(order.back(), "nested");
}

TEST(SerialQueueTest, aSyncBlockMayThrowAndUseOtherQueues) {
  TestPlatform platform;
  const auto outer = SerialQueue::make("outer");
  const auto inner = SerialQueue::make("inner");
  EXPECT_THROW(outer->sync([]() -> int { throw std::logic_error("x"); }), std::logic_error);
  EXPECT_EQ(outer->sync([&] {
    const int value =
        inner->sync([&] { return inner->isCurrent() && !outer->isCurrent() ? 1 : 0; });
    return value + (outer->isCurrent() ? 2 : 0);
  }),
            3);
}

TEST(SerialQueueTest, keepsItselfWhileWorkWaitsButNotForTimers) {
  TestPlatform platform;
  auto queue = SerialQueue::make("q");
  bool ran = false;
  bool late = false;
  queue->async([&] { ran = true; });
  queue->after(std::chrono::seconds(1), [&] { late = true; });
  std::weak_ptr<SerialQueue> watch = queue;
  queue.reset();
  platform.advance(std::chrono::seconds(2));
  EXPECT_TRUE(ran);
  EXPECT_FALSE(late);
  EXPECT_TRUE(watch.expired());
}

/// Real threads: what a queue of the library meets in an application.
class ThreadedQueueTest : public testing::Test {
protected:
  ThreadedQueueTest() {
    Platform::install({.background = pool.get_executor(), .scheduler = clock});
  }
  ~ThreadedQueueTest() override {
    pool.join();
    Platform::install({});
  }
  template <class Body>
  static void onThreads(int count, Body body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) threads.emplace_back(body, i);
    for (auto& thread : threads) thread.join();
  }
  std::shared_ptr<ManualScheduler> clock = std::make_shared<ManualScheduler>();
  boost::asio::thread_pool pool{2};
};

TEST_F(ThreadedQueueTest, losesNothingAndKeepsEachThreadsOrder) {
  constexpr int threads = 6;
  constexpr int rounds = 2'000;
  const auto queue = SerialQueue::make("q");
  int inside = 0;  // on the queue, as are the rest
  int counted = 0;
  std::map<int, int> last;
  bool good = true;
  onThreads(threads, [&](int index) {
    for (int i = 1; i <= rounds; ++i) {
      const auto step = [&, index, i] {
        good &= ++inside == 1 && std::exchange(last[index], i) == i - 1;
        ++counted;
        --inside;
      };
      if ((i + index) % 3 == 0)
        queue->sync(step);
      else
        queue->async(step);
    }
  });
  EXPECT_EQ(queue->sync([&] { return counted; }), threads * rounds);
  EXPECT_TRUE(good);
}

TEST_F(ThreadedQueueTest, anAsyncLockLetsOneThroughAtATimeInOrder) {
  AsyncLock lock;
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  std::atomic<int> passed{0};
  auto pass = [](AsyncLock& l, std::atomic<int>& in, std::atomic<int>& high,
                 std::atomic<int>& count) -> Task<void> {
    for (int i = 0; i < 200; ++i) {
      const auto guard = co_await l.acquire();
      high = std::max(high.load(), ++in);
      --in;
      ++count;
    }
  };
  std::vector<std::future<void>> done;
  for (int i = 0; i < 8; ++i)
    done.push_back(
        boost::asio::co_spawn(pool, pass(lock, inside, most, passed), boost::asio::use_future));
  for (auto& each : done) each.get();
  EXPECT_EQ(most, 1);
  EXPECT_EQ(passed, 1'600);
}

TEST(CompletionTest, firesOnceWhoeverComesFirst) {
  TestPlatform platform;
  std::vector<Completion<int>> kept;
  const auto wait = [&](std::function<void(Completion<int>)> begin) {
    return platform.start(awaitCallback<int>(std::move(begin)));
  };
  const auto first = wait([](Completion<int> done) { done(1), done(2); });
  EXPECT_EQ(*first, 1) << "also when it is called at once";
  const auto later = wait([&](Completion<int> done) { kept = {done, done}; });
  EXPECT_FALSE(*later);
  kept[1](7);
  kept[0](8);
  platform.pump();
  EXPECT_EQ(*later, 7);
  const auto never = wait([](Completion<int>) {});
  EXPECT_FALSE(*never);
  EXPECT_EQ(never.use_count(), 1) << "letting go of every copy ends the coroutine";
}

}  // namespace
}  // namespace kestrova::test
