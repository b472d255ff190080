#include <kestrova/tracing/InspectorOutput.h>
#include <kestrova/tracing/SdkTracer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <stdexcept>
#include <thread>

namespace kestrova {
namespace {

using enum EventCategory;
using EventType = InspectorEvent::EventType;
using testing::ElementsAre;

class InspectorOutputTest : public testing::Test {
protected:
  static std::vector<std::string> names(const InspectorOutput& output) {
    std::vector<std::string> all;
    for (const auto& event : output.buffer()) all.push_back(event.name);
    return all;
  }

  SdkTracer tracer;
};

struct Listener : InspectorListener {
  std::function<void(const InspectorEvent&)> heard;
  void onNewEvent(const InspectorEvent& event) override { heard(event); }
};

TEST_F(InspectorOutputTest, keepsTheNewest) {
  for (const std::size_t size : {0, 1, 2}) {
    InspectorOutput output({.maxBufferSize = size});
    for (const auto* name : {"a", "b", "c"}) output.onEvent({.name = name, .category = debug});
    if (size < 2)
      EXPECT_THAT(names(output), ElementsAre("c"));
    else
      EXPECT_THAT(names(output), ElementsAre("b", "c"));
    output.clearSpanHistory();
    EXPECT_TRUE(output.buffer().empty());
  }
}

TEST_F(InspectorOutputTest, marksWhatSucceededSlowly) {
  InspectorOutput output({.slowOpThresholdMs = 50});
  output.onSpanEnded({.id = "1", .name = "in time", .durationMs = 50, .message = "m"});
  output.onSpanEnded({.id = "2", .name = "late", .durationMs = 51, .message = "m"});
  output.onSpanEnded({.id = "3", .name = "failed", .durationMs = 51, .success = false});
  std::vector<std::string> messages;
  for (const auto& event : output.buffer()) messages.push_back(event.message.value_or("none"));
  EXPECT_THAT(messages, ElementsAre("m", "m (Slow: 51ms)", ""));
}

TEST_F(InspectorOutputTest, keepsWhatBelongsTogetherAndNoSecrets) {
  std::int64_t now = 1'700'000'000'000;
  const auto output =
      std::make_shared<InspectorOutput>(InspectorOutputOptions{.wallClockMs = [&] { return now; }});
  tracer.registerOutput(output);
  const auto parent = tracer.startSpan("parent");
  const auto span = tracer.startSpan("span", {.parentSpan = parent});
  ++now;
  tracer.traceEvent("event", {.attributes = {{"token", "abcdefghij"}},
                              .parentScope = span,
                              .category = warn,
                              .success = false});
  tracer.endSpan(span, {.attributes = {{"token", "abcdefghij"}}, .success = false});

  const auto kept = output->buffer();
  ASSERT_EQ(kept.size(), 4U);
  EXPECT_EQ(kept[1].type, EventType::spanStarted);
  EXPECT_EQ(kept[1].id, span.id());
  EXPECT_EQ(kept[1].parentId, parent.id());
  EXPECT_EQ(kept[1].timestamp + 1, kept[2].timestamp);
  EXPECT_EQ(kept[2].type, EventType::event);
  EXPECT_EQ(kept[2].parentId, span.id());
  EXPECT_EQ(kept[2].success, false);
  EXPECT_EQ(
      kept[2].attributes,
      (TraceAttributes{{"category", "WARN"}, {"component", "MEETING"}, {"token", "abc***hij"}}));
  EXPECT_EQ(kept[3].type, EventType::spanEnded);
  EXPECT_EQ(kept[3].id, span.id());
  // The tracer leaves what a span ends with as it is.
  EXPECT_EQ(kept[3].attributes, (TraceAttributes{{"token", "abc***hij"}}));
  EXPECT_EQ((std::set<std::string>{kept[0].id, kept[1].id, kept[2].id}).size(), 3U);
}

TEST_F(InspectorOutputTest, aListenerMayDoWhatItLikes) {
  const auto output = std::make_shared<InspectorOutput>();
  tracer.registerOutput(output);
  auto listener = std::make_shared<Listener>();
  std::vector<std::string> heard;
  listener->heard = [&](const InspectorEvent& event) {
    heard.push_back(event.name);
    EXPECT_EQ(output->buffer().back().name, event.name) << "kept before it is told, without a lock";
    tracer.traceEvent("heard it");
    output->setListener(listener);
    throw std::runtime_error("full screen");
  };
  output->setListener(listener);
  testing::internal::CaptureStderr();
  tracer.traceEvent("one");
  tracer.traceEvent("two");
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("InspectorListener"));
  EXPECT_THAT(heard, ElementsAre("one", "two"));
  EXPECT_THAT(names(*output), ElementsAre("one", "heard it", "two", "heard it"));
  listener.reset();
  tracer.traceEvent("three");
  EXPECT_EQ(heard.size(), 2U);
}

TEST_F(InspectorOutputTest, takesWhatTheLevelAdmitsWhereItRespectsIt) {
  InspectorOutput all;
  InspectorOutput some({.respectsLogLevel = true});
  for (auto* output : {&all, &some}) {
    output->setLogLevel(LogLevel::error);
    output->onSpanStarted({.id = "1", .name = "span", .category = telemetry});
    output->onSpanEnded({.id = "1", .name = "span", .category = telemetry});
    output->onEvent({.name = "internal", .category = internalLog});
    output->onEvent({.name = "error", .category = error});
  }
  EXPECT_EQ(all.buffer().size(), 4U);
  EXPECT_THAT(names(some), ElementsAre("error"));
}

TEST_F(InspectorOutputTest, standsManyThreads) {
  InspectorOutput output({.maxBufferSize = 10});
  std::atomic<int> heard = 0;
  const auto listener = std::make_shared<Listener>();
  listener->heard = [&](const InspectorEvent&) { ++heard; };
  output.setListener(listener);
  constexpr int rounds = 1000;
  {
    std::vector<std::jthread> speakers;
    for (int i = 0; i < 3; ++i)
      speakers.emplace_back([&] {
        for (int n = 0; n < rounds; ++n) output.onEvent({.name = "x", .category = debug});
      });
    for (int n = 0; n < rounds; ++n) EXPECT_LE(output.buffer().size(), 10U);
  }
  EXPECT_EQ(heard, 3 * rounds);
}

}  // namespace
}  // namespace kestrova
