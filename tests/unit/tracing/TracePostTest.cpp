#include <kestrova/tracing/TracePost.h>

#include <gtest/gtest.h>

#include "Collector.h"
#include <future>
#include <string>
#include <thread>

namespace kestrova {
namespace {

using namespace std::chrono_literals;

class TracePostTest : public testing::Test {
protected:
  TracePost makePost(std::chrono::milliseconds exportTimeout = 30s) {
    return TracePost({.endpoint = "https://traces.test/v1/traces?tenant=7",
                      .token = "opaque token",
                      .userAgent = "agent/1",
                      .platform = Collector::platform(collector),
                      .exportTimeout = exportTimeout});
  }

  const std::shared_ptr<Collector> collector = std::make_shared<Collector>();
};

TEST_F(TracePostTest, saysWhetherTheServiceTookTheBatch) {
  auto post = makePost();
  for (const auto& [status, taken] :
       {std::pair{200, true}, {202, true}, {0, false}, {302, false}, {401, false}, {503, false}}) {
    collector->answerWith(status);
    EXPECT_EQ(post.send("batch"), taken) << status;
  }
  EXPECT_EQ(collector->count(), 6U) << "each once";
}

TEST_F(TracePostTest, aBatchThatCannotBeEncodedGoesOutBare) {
  auto post = makePost();
  post.send("batch");
  post.send(std::nullopt);
  const auto requests = collector->waitFor(2);
  using Headers = decltype(URLRequest::headers);
  EXPECT_EQ(requests[0].headers, (Headers{{"Content-Type", "application/x-protobuf"},
                                          {"User-Agent", "agent/1"},
                                          {"Authorization", "opaque token"}}));
  EXPECT_EQ(requests[0].body, "batch");
  EXPECT_EQ(requests[1].headers, Headers{});
  EXPECT_EQ(requests[1].body, "");
  for (const auto& request : requests) {
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.url, "https://traces.test/v1/traces?tenant=7");
    EXPECT_EQ(request.timeout, 60s);
  }
}

TEST_F(TracePostTest, givesUpAServiceThatHangsAtTheTimeSaid) {
  collector->hang();
  auto post = makePost();
  auto sending = std::async(std::launch::async, [&] { return post.send("batch"); });
  collector->waitForHanging(1);
  post.giveUpAt(TracePost::Clock::now() + 1h);
  post.giveUpAt(TracePost::Clock::now());
  post.giveUpAt(TracePost::Clock::now() + 1h);  // the earliest counts
  EXPECT_FALSE(sending.get());
  EXPECT_FALSE(post.send("later"));
  EXPECT_EQ(collector->count(), 1U) << "nothing is sent after that";
  collector->release(0, 200);
}

TEST_F(TracePostTest, aLateAnswerIsNotTheNextRequests) {
  collector->hang();
  auto post = makePost(50ms);
  EXPECT_FALSE(post.send("first"));
  auto sending = std::async(std::launch::async, [&] { return post.send("second"); });
  collector->waitForHanging(2);
  collector->release(0, 200);
  EXPECT_FALSE(sending.get());
  collector->release(1, 200);
}

TEST_F(TracePostTest, anAnswerMayComeWhenThePostIsGone) {
  collector->hang();
  {
    auto post = makePost(1ms);
    EXPECT_FALSE(post.send("batch"));
  }
  collector->waitForHanging(1);
  collector->release(0, 200);
}

}  // namespace
}  // namespace kestrova
