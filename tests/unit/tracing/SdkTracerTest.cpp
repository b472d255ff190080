#include <kestrova/tracing/SdkTracer.h>

#include <gtest/gtest.h>

#include "RecordingOutput.h"
#include <atomic>
#include <set>
#include <thread>

namespace kestrova {
namespace {

using enum EventCategory;

class SdkTracerTest : public testing::Test {
protected:
  std::shared_ptr<RecordingOutput> addOutput(EventCategories categories, bool seesSecrets = false,
                                             int bit = 0) {
    auto output = std::make_shared<RecordingOutput>(categories, seesSecrets, bit);
    tracer.registerOutput(output);
    return output;
  }

  std::int64_t now = 1'700'000'000'000;
  SdkTracer tracer{[this] { return now; }};
};

TEST_F(SdkTracerTest, makesNoTextForNobody) {
  const auto output = addOutput({error});
  const auto fail = []() -> std::string { throw std::logic_error("made for nobody"); };
  tracer.traceEvent(fail, {.attributes = {{"a", fail}}, .category = telemetry});
  tracer.routedEvent(fail, {.attributes = {{"a", fail}}, .targetMask = 9, .category = error});
  const auto span = tracer.startSpan("Quiet", {.attributes = {{"a", fail}}, .category = debug});
  tracer.endSpan(span, {.attributes = {{"a", fail}}});
  EXPECT_TRUE(output->events.empty() && output->starts.empty() && output->ends.empty());
}

TEST_F(SdkTracerTest, hidesSecretsFromThoseWhoMayNotSeeThem) {
  const auto open = addOutput({telemetry}, true);
  const auto closed = addOutput({telemetry}, false);
  const auto other = addOutput({warn}, true);
  const auto span = tracer.startSpan("s", {.attributes = {{"token", "abcdefghij"}, {"method", "m"}},
                                           .component = {},
                                           .category = telemetry});
  tracer.endSpan(span, {.attributes = {{"token", "abcdefghij"}, {"method", "m"}}});
  EXPECT_EQ(open->starts.at(0).attributes, (TraceAttributes{{"token", "abcdefghij"}}));
  EXPECT_EQ(closed->starts.at(0).attributes, (TraceAttributes{{"token", "abc***hij"}}));
  // The end of a span is handed over as it is.
  EXPECT_EQ(closed->ends.at(0).attributes,
            (TraceAttributes{{"token", "abcdefghij"}, {"method", "m"}}));
  EXPECT_TRUE(other->starts.empty() && other->ends.empty());
}

TEST_F(SdkTracerTest, keepsSpansTogether) {
  const auto output = addOutput({telemetry, error});
  // Nobody takes the parent, and still it is one.
  const std::optional<SpanScope> parent = tracer.startSpan("parent", {.category = internalLog});
  const auto child = tracer.startSpan("child", {.parentSpan = parent, .category = telemetry});
  tracer.traceEvent("event", {.parentScope = &child, .category = telemetry});
  tracer.traceEvent("event", {.parentScope = child, .parentId = "given", .category = telemetry});
  now += 25;
  tracer.endSpan(child, {.category = error, .success = false, .message = "late"});
  tracer.endSpan(parent);
  tracer.endSpan(std::nullopt);

  ASSERT_EQ(output->starts.size(), 1U);
  EXPECT_EQ(output->starts[0].parentId, parent->id());
  EXPECT_EQ(output->starts[0].id, child.id());
  EXPECT_EQ(child.parentId(), parent->id());
  EXPECT_EQ(output->events.at(0).parentId, child.id());
  EXPECT_EQ(output->events.at(1).parentId, "given");
  ASSERT_EQ(output->ends.size(), 1U);
  EXPECT_EQ(output->ends[0].id, child.id());
  EXPECT_EQ(output->ends[0].durationMs, 25);
  EXPECT_EQ(output->ends[0].category, error);
  EXPECT_EQ(output->ends[0].message, "late");
  EXPECT_FALSE(output->ends[0].success);
}

TEST_F(SdkTracerTest, routesByMaskWhateverTheCategories) {
  const auto client = addOutput({}, true, outputBits::clientConsole);
  const auto backend = addOutput({}, true, outputBits::backendLog);
  const auto withoutBit = addOutput({debug, error}, true, 0);
  tracer.routedEvent("both", {.targetMask = targetMasks::consolesAndBackend, .category = debug});
  tracer.routedEvent("one", {.targetMask = targetMasks::consoles, .category = error});
  tracer.routedEvent("none", {.targetMask = 0, .category = error});
  const auto span = tracer.routedStartSpan("span", {.targetMask = targetMasks::consoleAndBackend});
  tracer.endSpan(span, {.category = error});
  const auto unrouted = tracer.routedStartSpan("by category", {.category = debug, .targetMask = 0});
  tracer.endSpan(unrouted);

  ASSERT_EQ(client->events.size(), 2U);
  EXPECT_EQ(client->events[0].success, true);
  EXPECT_EQ(client->events[1].success, false);
  EXPECT_EQ(backend->events.size(), 1U);
  EXPECT_TRUE(withoutBit->events.empty() && withoutBit->starts.empty());
  EXPECT_TRUE(client->starts.empty() && client->ends.empty());
  EXPECT_EQ(backend->starts.size(), 1U);
  EXPECT_EQ(backend->ends.size(), 1U);
  EXPECT_TRUE(withoutBit->ends.empty()) << "nobody was told that it began";
}

TEST_F(SdkTracerTest, bringsAndTakesItsOwnOutputs) {
  std::vector<std::shared_ptr<RecordingOutput>> made;
  tracer.setTelemetryOutputFactory([&](EventCategories categories, bool sees, bool respects) {
    EXPECT_EQ(categories, (EventCategories{telemetry, error, debug}));
    EXPECT_TRUE(sees);
    EXPECT_FALSE(respects);
    return made.emplace_back(std::make_shared<RecordingOutput>(categories, sees, 32));
  });
  testing::internal::CaptureStderr();
  tracer.setLogLevel(LogLevel::none);
  tracer.traceEvent("unseen", {.category = error});
  tracer.setLogLevel(LogLevel::warn);
  tracer.traceEvent("seen", {.category = warn});
  tracer.setLogLevel(LogLevel::info);
  tracer.setLogLevel(LogLevel::none);
  tracer.setLogLevel(LogLevel::error);
  tracer.traceEvent("again", {.category = error});
  const auto console = testing::internal::GetCapturedStderr();
  EXPECT_EQ(console,
            "[kestrova_unit_tests:SDK] info: Kestrova: ⚡ [MEETING] seen\n"
            "[kestrova_unit_tests:SDK] error: Kestrova: ⚡ [MEETING] again\n");
  ASSERT_EQ(made.size(), 1U);  // stays through all levels
  ASSERT_EQ(made[0]->events.size(), 7U);
  EXPECT_EQ(made[0]->events[0].name, "Kestrova Log Level set to: NONE");
  EXPECT_EQ(made[0]->levels.back(), LogLevel::error);

  const auto backend = std::make_shared<RecordingOutput>(EventCategories{warn}, false, 16);
  tracer.setBackendOutput(backend);
  tracer.traceEvent("to the backend", {.category = warn});
  const auto newer = std::make_shared<RecordingOutput>(EventCategories{warn}, false, 16);
  const auto newest = std::make_shared<RecordingOutput>(EventCategories{warn}, false, 16);
  tracer.setBackendOutput(newer);
  tracer.setBackendOutput(newest, newer);
  tracer.traceEvent("to another meeting's", {.category = warn});
  tracer.clearBackendOutput(newest);
  tracer.traceEvent("to the first again", {.category = warn});
  tracer.clearBackendOutput();
  tracer.clearBackendOutput();
  EXPECT_EQ(backend->events.size(), 2U);
  EXPECT_EQ(newer->events.size(), 0U);
  EXPECT_EQ(newest->events.size(), 1U);
  EXPECT_FALSE(tracer.wantsRouted(16));
}

TEST_F(SdkTracerTest, standsRegisteringAndTracingFromManyThreads) {
  constexpr int rounds = 200;
  const auto constant = addOutput({telemetry});
  std::atomic<int> missed = 0;
  auto work = [&] {
    for (int i = 0; i < rounds; ++i) {
      const auto mine = addOutput({warn}, i % 2 == 0, 64);
      tracer.traceEvent("mine", {.attributes = {{"id", "123456789"}}, .category = warn});
      if (!mine->gotEvents()) ++missed;
      const auto span = tracer.startSpan("span", {.category = telemetry});
      tracer.setBackendOutput(mine);
      tracer.clearBackendOutput();
      tracer.setRedactionConfig({.visibleChars = static_cast<std::size_t>(i % 4)});
      tracer.clearSpanHistory();
      tracer.endSpan(span);
    }
  };
  testing::internal::CaptureStderr();
  {
    std::jthread levels([&](const std::stop_token& stop) {
      for (int i = 0; !stop.stop_requested(); ++i)
        tracer.setLogLevel(i % 2 == 0 ? LogLevel::none : LogLevel::error);
    });
    std::jthread one(work);
    std::jthread two(work);
  }
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(missed, 0);
  EXPECT_EQ(constant->ends.size(), 2U * rounds);
  std::set<std::string> ids;
  for (const auto& start : constant->starts) ids.insert(start.id);
  EXPECT_EQ(ids.size(), 2U * rounds);
}

}  // namespace
}  // namespace kestrova
