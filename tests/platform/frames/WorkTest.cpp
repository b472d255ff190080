#include <gtest/gtest.h>

#include "examples/support/Work.h"
#include <atomic>
#include <future>
#include <memory>
#include <vector>

namespace work {
namespace {

TEST(BacklogTest, whatWaitsIsBoundedAndTheOldestGoes) {
  std::promise<void> begun, goOn, ended;
  std::vector<int> done;
  const auto sound = std::make_shared<int>();
  Backlog backlog(2);
  backlog.add([&] {
    begun.set_value();
    goOn.get_future().wait();
  });
  begun.get_future().wait();
  EXPECT_FALSE(backlog.add([&, sound] { done.push_back(1); }));
  EXPECT_FALSE(backlog.add([&, sound] { done.push_back(2); }));
  EXPECT_TRUE(backlog.add([&, sound] { done.push_back(3); }));
  EXPECT_TRUE(backlog.add([&] {
    done.push_back(4);
    ended.set_value();
  }));
  EXPECT_EQ(sound.use_count(), 2) << "what has gone is kept";
  goOn.set_value();
  ended.get_future().wait();
  EXPECT_EQ(done, (std::vector{3, 4}));
}

TEST(BacklogTest, itsEndWaitsForWhatIsBeingDone) {
  std::promise<void> begun, goOn;
  std::atomic<bool> isDone = false;
  auto backlog = std::make_unique<Backlog>(10);
  backlog->add([&] {
    begun.set_value();
    goOn.get_future().wait();
    isDone = true;
  });
  begun.get_future().wait();
  auto end = std::async(std::launch::async, [&] {
    goOn.set_value();
    backlog.reset();
    return isDone.load();
  });
  EXPECT_TRUE(end.get());
}

}  // namespace
}  // namespace work
