#include <kestrova/tracing/ConsoleOutput.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kestrova {
namespace {

using enum EventCategory;

class ConsoleOutputTest : public testing::Test {
protected:
  ClientConsoleOutput makeOutput(LogLevel level) {
    return ClientConsoleOutput(
        {.tag = "Kestrova",
         .subscribedCategories = {debug, telemetry, warn, error, backendError, realtime},
         .configuredLevel = level,
         .logger = ConsoleLogger([this](LogType type, std::string_view line) {
           types.push_back(type);
           lines.emplace_back(line);
         })});
  }

  std::vector<LogType> types;
  std::vector<std::string> lines;
};

TEST_F(ConsoleOutputTest, indentsBySpan) {
  auto output = makeOutput(LogLevel::all);
  output.onSpanStarted(
      {.id = "1", .name = "outer", .attributes = {{"component", "MEDIA"}}, .category = telemetry});
  output.onSpanStarted({.id = "2",
                        .name = "inner",
                        .parentId = "1",
                        .attributes = {{"a", "1"}, {"b", "2"}},
                        .category = telemetry});
  output.onEvent({.name = "point",
                  .attributes = {{"component", "MEETING"}, {"k", "v"}},
                  .parentId = "2",
                  .category = warn});
  output.onEvent({.name = "orphan", .parentId = "gone", .category = telemetry});
  output.onSpanEnded({.id = "2",
                      .name = "inner",
                      .durationMs = 7,
                      .success = false,
                      .message = "no answer",
                      .attributes = {{"a", "1"}}});
  output.onSpanEnded({.id = "1",
                      .name = "outer",
                      .durationMs = 12,
                      .message = "SUCCESS",
                      .attributes = {{"a", "1"}}});
  output.onSpanEnded({.id = "1", .name = "outer", .durationMs = 13});
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "Kestrova: ▶ [MEDIA] outer",
                       "Kestrova: |   ▶ [MEETING] inner { a: 1, b: 2 }",
                       "Kestrova: |   |   ⚡ [MEETING] point { k: v }",
                       "Kestrova: ⚡ orphan",
                       "Kestrova: |   ◀ [MEETING] inner (7 ms ✗) - no answer { a: 1 }",
                       "Kestrova: ◀ [MEDIA] outer (12 ms ✓)",
                       "Kestrova: ◀ [MEETING] outer (13 ms ✓)",
                   }));
}

TEST_F(ConsoleOutputTest, showsWhatTheLevelAdmits) {
  const auto all = {internalLog, debug, realtime, telemetry, warn, error, backendError};
  const std::vector<std::pair<LogLevel, std::vector<std::string>>> table = {
      {LogLevel::none, {}},
      {LogLevel::error, {"ERROR", "BACKEND_ERROR"}},
      {LogLevel::warn, {"WARN", "ERROR", "BACKEND_ERROR"}},
      {LogLevel::info, {"TELEMETRY", "WARN", "ERROR", "BACKEND_ERROR"}},
      {LogLevel::debug, {"DEBUG", "TELEMETRY", "WARN", "ERROR", "BACKEND_ERROR"}},
      {LogLevel::all, {"DEBUG", "REALTIME", "TELEMETRY", "WARN", "ERROR", "BACKEND_ERROR"}},
  };
  auto output = makeOutput(LogLevel::info);
  for (const auto& [level, expected] : table) {
    lines.clear();
    types.clear();
    output.setLogLevel(level);
    for (auto category : all)
      output.onEvent({.name = std::string(rawValue(category)), .category = category});
    std::vector<std::string> wanted;
    for (const auto& name : expected) wanted.push_back("Kestrova: ⚡ " + name);
    EXPECT_EQ(lines, wanted) << upperCaseName(level);
  }
  EXPECT_EQ(types, (std::vector{LogType::debug, LogType::info, LogType::info, LogType::info,
                                LogType::error, LogType::fault}));
}

}  // namespace
}  // namespace kestrova
