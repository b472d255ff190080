#include <kestrova/inspector/Inbox.h>

#include <gtest/gtest.h>

#include <thread>
#include <utility>

namespace kestrova::inspector {
namespace {

TEST(InboxTest, AFloodOfTracesIsLeftOutAndCountedAndNothingElseIs) {
  const auto loop = std::make_shared<boost::asio::io_context>(1);
  std::size_t delivered = 0, missing = 0;
  const auto inbox =
      std::make_shared<Inbox>(loop, [&](std::vector<Inbox::Change> changes, std::size_t leftOut) {
        delivered += changes.size();
        missing += leftOut;
      });
  const auto flood = [&] {
    for (int i = 0; i < 10'000; ++i) inbox->putTrace([](MeetingRecord&) {}, 100);
    for (int i = 0; i < 1000; ++i) inbox->put([](MeetingRecord&) {});
  };
  std::thread other(flood);
  flood();
  other.join();
  loop->run();
  EXPECT_EQ(delivered, 5000U + 2000U);
  EXPECT_EQ(missing, 15'000U);
  // There is room again.
  inbox->putTrace([](MeetingRecord&) {}, 100);
  loop->restart();
  loop->run();
  EXPECT_EQ(delivered, 7001U);
  EXPECT_EQ(missing, 15'000U);
}

TEST(InboxTest, LongLinesOfATraceFillItEarlierAndOneAlwaysFits) {
  constexpr std::size_t megabyte = 1024 * 1024;
  const auto loop = std::make_shared<boost::asio::io_context>(1);
  std::size_t delivered = 0, missing = 0;
  const auto inbox =
      std::make_shared<Inbox>(loop, [&](std::vector<Inbox::Change> changes, std::size_t leftOut) {
        delivered += changes.size();
        missing += leftOut;
      });
  const auto run = [&] {
    loop->restart();
    loop->run();
    return std::pair(std::exchange(delivered, 0), std::exchange(missing, 0));
  };
  for (int i = 0; i < 20; ++i) inbox->putTrace([](MeetingRecord&) {}, megabyte);
  EXPECT_EQ(run(), std::pair(std::size_t{8}, std::size_t{12}));
  for (int i = 0; i < 2; ++i) inbox->putTrace([](MeetingRecord&) {}, 50 * megabyte);
  inbox->put([](MeetingRecord&) {});
  EXPECT_EQ(run(), std::pair(std::size_t{2}, std::size_t{1}));
}

TEST(InboxTest, WhatItsLoopNeverRanIsReleased) {
  auto loop = std::make_shared<boost::asio::io_context>(1);
  const std::weak_ptr<boost::asio::io_context> watched = loop;
  auto inbox = std::make_shared<Inbox>(std::move(loop), [](auto, auto) {});
  auto held = std::make_shared<int>();
  const std::weak_ptr<int> release = held;
  inbox->put([held = std::move(held)](MeetingRecord&) {});
  inbox.reset();
  EXPECT_TRUE(watched.expired());
  EXPECT_TRUE(release.expired());
}

}  // namespace
}  // namespace kestrova::inspector
