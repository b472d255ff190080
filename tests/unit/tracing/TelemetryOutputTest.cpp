#include <kestrova/tracing/TelemetryOutput.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace kestrova {
namespace {

using enum EventCategory;
using Lines = std::vector<std::string>;

struct FakeSpan final : TelemetrySpan {
  explicit FakeSpan(std::string spanName) : name(std::move(spanName)) {}
  bool isRecording() const override { return true; }
  void setAttribute(std::string_view, std::string_view) override {}
  void setStatus(const TelemetryStatus&) override {}
  void end() override {}
  const std::string name;
};

/// Writes down what is asked of it, as one line each.
class FakeTelemetry final : public Telemetry {
public:
  std::shared_ptr<TelemetrySpan> trace(std::string_view name, TelemetryAttributes attributes,
                                       const std::shared_ptr<TelemetrySpan>& parent) override {
    note("start " + std::string(name) + below(parent) + text(attributes));
    return exports ? std::make_shared<FakeSpan>(std::string(name)) : nullptr;
  }
  void traceAutoComplete(std::string_view name, TelemetryAttributes attributes,
                         const std::shared_ptr<TelemetrySpan>& parent,
                         const TelemetryStatus& status) override {
    note("event " + std::string(name) + below(parent) + text(attributes) + text(status));
  }
  void completeSpan(const std::shared_ptr<TelemetrySpan>& span, const TelemetryStatus& status,
                    std::string_view message, TelemetryAttributes attributes) override {
    note("end " + static_cast<FakeSpan&>(*span).name + text(attributes) + text(status) + " '" +
         std::string(message) + "'");
  }

  Lines taken() {
    const std::lock_guard held(_lock);
    return std::exchange(_lines, {});
  }

  std::atomic<bool> exports = true;

private:
  static std::string below(const std::shared_ptr<TelemetrySpan>& parent) {
    return parent ? " in " + static_cast<FakeSpan&>(*parent).name : "";
  }
  static std::string text(TelemetryAttributes attributes) {
    std::string all;
    for (const auto& [key, value] : attributes)
      all += ' ' + std::string(key) + '=' + std::string(value);
    return all;
  }
  static std::string text(const TelemetryStatus& status) {
    return status.code == TelemetryStatus::Code::ok ? " ok" : " error:" + status.description;
  }
  void note(std::string line) {
    const std::lock_guard held(_lock);
    _lines.push_back(std::move(line));
  }

  std::mutex _lock;
  Lines _lines;
};

class TelemetryOutputTest : public testing::Test {
protected:
  TelemetryOutput makeOutput(bool respectsLogLevel = false) {
    return TelemetryOutput({.subscribedCategories = {telemetry, error, debug},
                            .respectsLogLevel = respectsLogLevel,
                            .activeTelemetry = [this] { return active; }});
  }
  void start(const std::string& id, std::optional<std::string> parentId = std::nullopt) {
    output.onSpanStarted(
        {.id = id, .name = id, .parentId = std::move(parentId), .category = telemetry});
  }
  void end(const std::string& id) { output.onSpanEnded({.id = id, .name = id}); }
  void startMany(int from, int to) {
    for (int i = from; i <= to; ++i) start("s" + std::to_string(i));
  }
  /// Whether the output still knows the span, as parent of another.
  bool knows(const std::string& id) {
    fake->taken();
    output.onEvent({.name = "probe", .parentId = id, .category = telemetry});
    return fake->taken().at(0).find(" in " + id) != std::string::npos;
  }

  const std::shared_ptr<FakeTelemetry> fake = std::make_shared<FakeTelemetry>();
  std::shared_ptr<Telemetry> active = fake;
  TelemetryOutput output = makeOutput();
};

TEST_F(TelemetryOutputTest, spansAndEventsReachTheActiveTelemetry) {
  output.onSpanStarted({.id = "1",
                        .name = "join",
                        .parentId = "never seen",
                        .attributes = {{"a", "1"}, {"category", "mine"}},
                        .category = error});
  start("2", "1");
  output.onEvent({.name = "good", .parentId = "2", .category = debug, .success = true});
  output.onEvent(
      {.name = "bad", .attributes = {{"k", "v"}}, .category = telemetry, .success = false});
  output.onSpanEnded({.id = "2", .name = "2", .success = false, .message = "no answer"});
  output.onSpanEnded({.id = "1", .name = "join", .message = "done", .attributes = {{"b", "2"}}});
  output.onSpanEnded({.id = "unknown", .name = "x"});
  EXPECT_EQ(fake->taken(),
            (Lines{"start join a=1 category=ERROR", "start 2 in join category=TELEMETRY",
                   "event good in 2 category=DEBUG ok",
                   "event bad k=v category=TELEMETRY error:Error while adding trace.",
                   "end 2 error:no answer 'no answer'", "end join b=2 ok 'done'"}));
  start("child of one that ended", "1");
  EXPECT_EQ(fake->taken(), (Lines{"start child of one that ended in join category=TELEMETRY"}));
}

TEST_F(TelemetryOutputTest, holdsBackUntilThereIsTelemetry) {
  active = nullptr;
  start("early");
  output.onEvent({.name = "point", .parentId = "early", .category = debug});
  end("early");
  active = fake;
  // Only the start of a span brings what was held back.
  output.onEvent({.name = "later", .category = debug});
  end("early");
  EXPECT_EQ(fake->taken(), (Lines{"event later category=DEBUG ok"}));
  start("first");
  start("second");
  EXPECT_EQ(fake->taken(),
            (Lines{"start early category=TELEMETRY", "event point in early category=DEBUG ok",
                   "end early ok ''", "start first category=TELEMETRY",
                   "start second category=TELEMETRY"}));
}

TEST_F(TelemetryOutputTest, whatFindsNoTelemetryWhileItIsFlushedWaitsAgain) {
  int asked = 0;
  TelemetryOutput flickering(
      {.subscribedCategories = {telemetry}, .activeTelemetry = [&]() -> std::shared_ptr<Telemetry> {
         ++asked;
         return asked == 1 || asked == 3 ? nullptr : active;
       }});
  flickering.onSpanStarted({.id = "1", .name = "held", .category = telemetry});
  flickering.onSpanStarted({.id = "2", .name = "flushes", .category = telemetry});
  EXPECT_EQ(fake->taken(), (Lines{"start flushes category=TELEMETRY"}));
  flickering.onSpanStarted({.id = "3", .name = "next", .category = telemetry});
  EXPECT_EQ(fake->taken(), (Lines{"start next category=TELEMETRY"})) << "one flush a meeting";
  flickering.clearSpanHistory();
  flickering.onSpanStarted({.id = "4", .name = "other meeting", .category = telemetry});
  EXPECT_EQ(fake->taken(), (Lines{"start other meeting category=TELEMETRY"}));
}

TEST_F(TelemetryOutputTest, spansThatWereNeverExportedAreNotEnded) {
  fake->exports = false;
  start("1");
  fake->exports = true;
  fake->taken();
  end("1");
  start("2", "1");
  EXPECT_EQ(fake->taken(), (Lines{"start 2 category=TELEMETRY"}));
}

TEST_F(TelemetryOutputTest, theNewestSpanThatEndedMakesRoom) {
  startMany(1, 512);
  for (const auto* id : {"s7", "s300", "s20"}) end(id);
  start("more1");
  EXPECT_FALSE(knows("s300")) << "the newest by its start, whenever it ended";
  start("more2");
  EXPECT_FALSE(knows("s20"));
  end("more2");
  start("more3");
  EXPECT_FALSE(knows("more2"));
  EXPECT_TRUE(knows("s7"));
  EXPECT_TRUE(knows("more1"));
}

TEST_F(TelemetryOutputTest, whereNoneHasEndedTheOldestStays) {
  startMany(1, 512);
  EXPECT_TRUE(knows("s2"));
  startMany(513, 514);
  EXPECT_TRUE(knows("s1"));
  EXPECT_FALSE(knows("s2"));
  EXPECT_FALSE(knows("s3"));
  EXPECT_TRUE(knows("s4"));
  fake->taken();
  end("s2");
  EXPECT_EQ(fake->taken(), Lines{}) << "it can't be completed any more";
}

TEST_F(TelemetryOutputTest, anIdThatComesAgainTakesNoSecondPlace) {
  startMany(1, 512);
  for (int i = 0; i < 5; ++i) start("s5");
  EXPECT_TRUE(knows("s2"));
  start("s513");
  EXPECT_FALSE(knows("s2"));
  EXPECT_TRUE(knows("s3"));
}

TEST_F(TelemetryOutputTest, theEndOfAMeetingForgetsItsSpansAndWhatWaits) {
  startMany(1, 512);
  active = nullptr;
  start("waits in vain");
  output.clearSpanHistory();
  start("early");
  active = fake;
  fake->taken();
  end("s1");
  startMany(1, 511);
  const auto lines = fake->taken();
  ASSERT_EQ(lines.size(), 512U);
  EXPECT_EQ(lines[0], "start early category=TELEMETRY");
  EXPECT_TRUE(knows("s1")) << "all places were free";
}

TEST_F(TelemetryOutputTest, filtersByLevelOnlyWhenAsked) {
  for (const bool respects : {false, true}) {
    auto filtering = makeOutput(respects);
    filtering.setLogLevel(LogLevel::warn);
    filtering.onSpanStarted({.id = "1", .name = "quiet", .category = telemetry});
    filtering.onEvent({.name = "loud", .category = error});
    filtering.onEvent({.name = "quiet", .category = debug});
    EXPECT_EQ(fake->taken().size(), respects ? 1U : 3U);
  }
}

TEST_F(TelemetryOutputTest, takesSpansOfManyThreadsWhileMeetingsEnd) {
  std::vector<std::thread> threads;
  std::atomic<int> running = 3;
  for (int t = 0; t < 3; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 700; ++i) {
        const auto id = std::to_string(t) + "-" + std::to_string(i);
        start(id);
        output.onEvent({.name = "e", .parentId = id, .category = debug});
        if (i % 3 != 0) end(id);
      }
      --running;
    });
  while (running > 0) output.clearSpanHistory();
  for (auto& thread : threads) thread.join();
  const auto lines = fake->taken();
  const auto starts = std::count_if(lines.begin(), lines.end(),
                                    [](const auto& line) { return line.starts_with("start "); });
  EXPECT_EQ(starts, 2100) << "every span was made";
}

}  // namespace
}  // namespace kestrova
