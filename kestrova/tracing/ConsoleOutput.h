#pragma once

#include <kestrova/tracing/ConsoleLogger.h>
#include <kestrova/tracing/TraceOutput.h>

#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace kestrova {

struct ConsoleOutputOptions {
  /// Begins every line.
  std::string tag;
  EventCategories subscribedCategories;
  bool canAccessSensitiveData = false;
  bool respectsLogLevel = true;
  LogLevel configuredLevel = LogLevel::info;
  ConsoleLogger logger{};
};

/// Writes events and spans as lines, indented by the spans they lie in:
///
///     Kestrova: ▶ [MEETING] Joining { peerId: abc }
///     Kestrova: |   ⚡ [MEETING] Socket connected
///     Kestrova: ◀ [MEETING] Joining (120 ms ✓)
class ConsoleLineOutput : public TraceOutput {
public:
  EventCategories subscribedCategories() const final { return _options.subscribedCategories; }
  bool canAccessSensitiveData() const final { return _options.canAccessSensitiveData; }
  bool respectsLogLevel() const final { return _options.respectsLogLevel; }
  int outputBit() const final { return _outputBit; }
  void onSpanStarted(const SpanStart& span) final;
  void onSpanEnded(const SpanEnd& span) final;
  void onEvent(const TraceEvent& event) final;
  void setLogLevel(LogLevel level) final;
  void clearSpanHistory() final;

protected:
  ConsoleLineOutput(ConsoleOutputOptions options, int outputBit);

private:
  struct SpanInfo {
    int depth = 0;
    EventCategory category = EventCategory::telemetry;
    std::string component = "MEETING";
  };

  /// One line in its pieces.
  struct Words {
    EventCategory category;
    int depth = 0;
    std::string_view mark;
    std::string_view component;  // may be empty
    std::string_view said;
    bool showsAttributes = true;
  };

  void write(const Words& words, const TraceAttributes& attributes) const;
  bool hand(const Words& words, const TraceAttributes& attributes) const;
  int depthBelow(const std::optional<std::string>& parentId) const;  // under _lock
  bool shows(EventCategory category) const;                          // under _lock

  ConsoleOutputOptions _options;  // configuredLevel under _lock, the rest constant
  const int _outputBit;
  mutable std::mutex _lock;
  std::unordered_map<std::string, SpanInfo> _spanInfoMap;
};

/// The console that applications see.
class ClientConsoleOutput final : public ConsoleLineOutput {
public:
  explicit ClientConsoleOutput(ConsoleOutputOptions options);
};

/// The same for those who develop the library; registered by hand.
class ConsoleOutput final : public ConsoleLineOutput {
public:
  explicit ConsoleOutput(ConsoleOutputOptions options);
};

}  // namespace kestrova
