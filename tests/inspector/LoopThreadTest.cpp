#include <kestrova/inspector/EventFeed.h>
#include <kestrova/inspector/LoopThread.h>

#include <boost/asio/post.hpp>
#include <gmock/gmock.h>
#include <tests/support/TestPlatform.h>

#include "Browser.h"
#include <future>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

namespace kestrova::inspector {
namespace {

TEST(LoopThreadTest, WhatIsThrownIsToldOnceAndTheLoopGoesOn) {
  testing::internal::CaptureStderr();
  std::promise<void> reached;
  {
    LoopThread thread;
    boost::asio::post(*thread.loop(), [] { throw std::runtime_error("no room"); });
    boost::asio::post(*thread.loop(), [] { throw 7; });
    boost::asio::post(*thread.loop(), [] { throw std::bad_alloc(); });
    boost::asio::post(*thread.loop(), [&] { reached.set_value(); });
    thread.start();
    reached.get_future().wait();
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Kestrova: an exception escaped from the inspector, which goes on: no room\n");
}

TEST(LoopThreadTest, AChangeThatFailsTakesNoOtherAlong) {
  const test::TestPlatform platform;
  testing::internal::CaptureStderr();
  LoopThread thread;
  EventFeed feed(*thread.loop(), {}, "");
  const auto come = [](const char* id) {
    return [id](MeetingRecord& record) { record.participantCame({.id = id, .name = id}); };
  };
  boost::asio::post(*thread.loop(), [&] {
    const auto fail = [](MeetingRecord&) { throw std::bad_alloc(); };
    feed.take({come("ada"), fail, come("bob")}, 3);
  });
  thread.start();
  auto page = test::Browser::visiting(feed.server().address(), "events");
  page.readHead();
  const auto snapshot = page.nextEvent().data;
  EXPECT_EQ(snapshot.at("participants").as_array().size(), 2U);
  EXPECT_EQ(snapshot.at("events").at(0).at("attributes").at("count").as_string(), "3");
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("std::bad_alloc"));
}

}  // namespace
}  // namespace kestrova::inspector
