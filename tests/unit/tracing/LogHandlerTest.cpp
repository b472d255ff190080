#include <kestrova/session/Kestrova.h>
#include <kestrova/tracing/ConsoleOutput.h>
#include <kestrova/tracing/Trace.h>

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kestrova {
namespace {

using enum EventCategory;

struct Heard {
  LogLevel level;
  std::string text;
  TraceAttributes attributes;
  bool operator==(const Heard&) const = default;
};

class LogHandlerTest : public testing::Test {
protected:
  LogHandlerTest() { Kestrova::setLogHandler(recorder()); }
  ~LogHandlerTest() override { Kestrova::setLogHandler(nullptr); }

  LogHandler recorder() {
    return [this](const LogLine& line) {
      heard.push_back({line.level, std::string(line.text), line.attributes});
    };
  }
  static ClientConsoleOutput makeConsole(LogLevel level, bool seesSecrets = false) {
    return ClientConsoleOutput(
        {.tag = "Kestrova",
         .subscribedCategories = {debug, telemetry, warn, error, backendError, realtime},
         .canAccessSensitiveData = seesSecrets,
         .configuredLevel = level});
  }
  /// What reaches the standard error stream while `action` runs.
  template <class Action>
  static std::string written(Action action) {
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
  }

  std::vector<Heard> heard;
};

TEST_F(LogHandlerTest, aNameOfSomebodyElseNeitherMakesLinesNorSteersTheTerminal) {
  Kestrova::setLogHandler(nullptr);
  auto console = makeConsole(LogLevel::warn);
  const auto* name = "Zoë\x1b[2J\r\n[x:SDK] error: \u009b1m\x7f…\xC2";
  EXPECT_EQ(written([&] { console.onEvent({.name = name, .category = warn}); }),
            "[kestrova_unit_tests:SDK] info: Kestrova: ⚡ "
            "Zoë\\x1b[2J\\x0d\\x0a[x:SDK] error: \\x9b1m\\x7f…\xC2\n");
}

TEST_F(LogHandlerTest, getsTheLinesOfAConsoleThatIsThereAlready) {
  Kestrova::setLogHandler(nullptr);
  auto console = makeConsole(LogLevel::warn);
  EXPECT_EQ(written([&] { console.onEvent({.name = "before", .category = warn}); }),
            "[kestrova_unit_tests:SDK] info: Kestrova: ⚡ before\n");
  Kestrova::setLogHandler(recorder());
  EXPECT_EQ(written([&] {
              console.onEvent({.name = "unseen", .category = telemetry});
              console.onEvent({.name = "seen", .attributes = {{"k", "v"}}, .category = error});
            }),
            "");
  EXPECT_EQ(heard, (std::vector<Heard>{{LogLevel::error, "seen", {{"k", "v"}}}}));
  Kestrova::setLogHandler(nullptr);
  EXPECT_NE(written([&] { console.onEvent({.name = "after", .category = warn}); }), "");
  EXPECT_EQ(heard.size(), 1U);
}

TEST_F(LogHandlerTest, eachLineHasItsLevel) {
  auto console = makeConsole(LogLevel::all);
  for (const auto category : {error, backendError, warn, telemetry, debug, realtime})
    console.onEvent({.name = "x", .category = category});
  std::vector<LogLevel> levels;
  for (const auto& line : heard) levels.push_back(line.level);
  EXPECT_EQ(levels, (std::vector{LogLevel::error, LogLevel::error, LogLevel::warn, LogLevel::info,
                                 LogLevel::debug, LogLevel::all}));
}

TEST_F(LogHandlerTest, spansAreToldWithoutIndentAndTheirEndWithoutSecrets) {
  auto console = makeConsole(LogLevel::info);
  console.onSpanStarted({.id = "1",
                         .name = "join",
                         .attributes = {{"component", "MEDIA"}, {"a", "1"}},
                         .category = telemetry});
  // The tracer leaves what a span ends with as it is.
  console.onSpanEnded({.id = "1",
                       .name = "join",
                       .durationMs = 7,
                       .success = false,
                       .message = "no answer",
                       .attributes = {{"token", "abcdefghijkl"}}});
  EXPECT_EQ(heard, (std::vector<Heard>{
                       {LogLevel::info, "▶ join", {{"component", "MEDIA"}, {"a", "1"}}},
                       {LogLevel::info,
                        "◀ join (7 ms ✗) - no answer",
                        {{"component", "MEDIA"}, {"token", "abc***jkl"}}},
                   }));
  heard.clear();
  auto trusted = makeConsole(LogLevel::info, true);
  trusted.onEvent({.name = "x", .attributes = {{"token", "abcdefghijkl"}}, .category = error});
  EXPECT_EQ(heard.at(0).attributes.at("token"), "abc***jkl");
}

TEST_F(LogHandlerTest, aHandlerThatThrowsOrCallsTheLibraryHarmsNothing) {
  auto console = makeConsole(LogLevel::info);
  int calls = 0;
  Kestrova::setLogHandler([&](const LogLine&) {
    ++calls;
    console.onEvent({.name = "from within", .category = error});
    Kestrova::setLogHandler([&](const LogLine&) -> void {
      ++calls;
      throw std::runtime_error("full disk");
    });
  });
  const auto first = written([&] { console.onEvent({.name = "first", .category = warn}); });
  EXPECT_EQ(calls, 1) << "not called again within itself";
  EXPECT_EQ(first, "[kestrova_unit_tests:SDK] error: Kestrova: ⚡ from within\n");
  for (int i = 2; i <= 3; ++i) {
    const auto next = written([&] { console.onEvent({.name = "next", .category = warn}); });
    EXPECT_EQ(calls, i);
    EXPECT_EQ(next, "[kestrova_unit_tests:SDK] info: Kestrova: ⚡ next\n") << "no line is lost";
  }
}

TEST_F(LogHandlerTest, isReplacedWhileOthersSpeak) {
  auto console = makeConsole(LogLevel::info);
  std::atomic<int> taken{0};
  constexpr int lines = 2000;
  // Before anybody speaks: the fixture's handler is for one thread.
  Kestrova::setLogHandler([&taken](const LogLine&) { ++taken; });
  std::vector<std::thread> speakers;
  for (int i = 0; i < 3; ++i)
    speakers.emplace_back([&] {
      for (int n = 0; n < lines; ++n) console.onEvent({.name = "x", .category = error});
    });
  for (int i = 0; i < lines; ++i) {
    // Each handler has state of its own, which must outlive the calls that are under way.
    Kestrova::setLogHandler([&taken, own = std::string(100, 'x')](const LogLine&) {
      if (own.size() == 100) ++taken;
    });
  }
  for (auto& speaker : speakers) speaker.join();
  EXPECT_GT(taken, 0);
  EXPECT_LE(taken, 3 * lines);
}

}  // namespace
}  // namespace kestrova
