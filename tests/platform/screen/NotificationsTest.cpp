#include <kestrova/platform/linux/screen/LinuxNotifications.h>
#include <kestrova/platform/linux/screen/PrivateFolder.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "PrivateRuntime.h"
#include <atomic>
#include <filesystem>
#include <future>
#include <thread>

namespace kestrova::test {
namespace {

class NotificationsTest : public testing::Test {
protected:
  ~NotificationsTest() override {
    loop.stop();
    thread.join();
  }
  PrivateRuntime runtime;
  const std::string here = *groupFolder("here");
  const std::string there = *groupFolder("there");
  boost::asio::io_context loop;
  const boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work =
      boost::asio::make_work_guard(loop);
  const std::shared_ptr<CrossProcessNotifications> center = makeNotifications(loop.get_executor());
  std::thread thread{[this] { loop.run(); }};
};

TEST_F(NotificationsTest, anotherProcessIsHeardByThoseWhoObserveThatNameInThatGroup) {
  std::promise<void> heard;
  std::atomic<int> others{0};
  const auto count = [&] { ++others; };
  const auto wanted = center->addObserver(here, "start", [&] { heard.set_value(); });
  const auto otherName = center->addObserver(here, "stop", count);
  const auto otherGroup = center->addObserver(there, "start", count);
  auto gone = center->addObserver(here, "start", count);
  gone.reset();
  const pid_t child = ::fork();
  if (child == 0) {
    makeNotifications(loop.get_executor())->post(here, "start");
    ::_exit(0);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_EQ(heard.get_future().wait_for(std::chrono::seconds(patienceSeconds)),
            std::future_status::ready);
  EXPECT_EQ(others, 0);
}

TEST_F(NotificationsTest, whatAProcessLeftBehindIsRemoved) {
  const pid_t child = ::fork();
  if (child == 0) {
    // Ends without a farewell: its socket's file stays.
    static const auto kept = center->addObserver(here, "start", [] {});
    ::_exit(kept ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_EQ(status, 0);
  EXPECT_FALSE(std::filesystem::is_empty(here));
  center->post(here, "start");
  EXPECT_TRUE(std::filesystem::is_empty(here));
  center->post(here + "/nowhere", "start");
}

}  // namespace
}  // namespace kestrova::test
