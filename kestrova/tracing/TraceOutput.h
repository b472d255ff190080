#pragma once

#include <kestrova/tracing/TraceCategories.h>
#include <kestrova/tracing/TraceValue.h>

#include <cstdint>
#include <optional>
#include <string>

namespace kestrova {

struct SpanStart {
  std::string id;
  std::string name;
  std::optional<std::string> parentId{};
  TraceAttributes attributes{};
  EventCategory category = EventCategory::internalLog;
  std::optional<bool> dashboardLog{};
};

struct SpanEnd {
  std::string id;
  std::string name;
  EventCategory category = EventCategory::internalLog;
  std::int64_t durationMs = 0;
  bool success = true;
  std::string message{};
  TraceAttributes attributes{};
  bool dashboardLog = false;
};

struct TraceEvent {
  std::string name;
  TraceAttributes attributes{};
  std::optional<std::string> parentId{};
  EventCategory category = EventCategory::internalLog;
  std::optional<bool> success{};
  bool dashboardLog = false;
};

/// A place where the tracer's stream goes: a console, a log service, a telemetry service. Callbacks
/// come on any thread, several at once, with none of the tracer's locks held, and must not throw.
class TraceOutput {
public:
  virtual ~TraceOutput() = default;
  /// What this output takes of the calls routed by category. Never changes.
  virtual EventCategories subscribedCategories() const = 0;
  /// True: gets the attributes without redaction. Never changes.
  virtual bool canAccessSensitiveData() const = 0;
  /// True: filters further by the level it was given.
  virtual bool respectsLogLevel() const = 0;
  /// This output's bit for the calls routed by mask; 0 takes no part. Never changes.
  virtual int outputBit() const = 0;
  virtual void onSpanStarted(const SpanStart& span) = 0;
  virtual void onSpanEnded(const SpanEnd& span) = 0;
  virtual void onEvent(const TraceEvent& event) = 0;
  /// Comes with the tracer's list of outputs locked: must not call the tracer.
  virtual void setLogLevel(LogLevel level) = 0;
  /// Forgets the spans seen so far: the meeting they belonged to is over.
  virtual void clearSpanHistory() {}
};

/// The bits of the outputs. Routed calls name their outputs by the sum of these.
namespace outputBits {
inline constexpr int console = 1;
inline constexpr int inspector = 4;
inline constexpr int clientConsole = 8;
inline constexpr int backendLog = 16;
inline constexpr int telemetry = 32;
}  // namespace outputBits

/// The masks in use.
namespace targetMasks {
inline constexpr int consoles = outputBits::console | outputBits::clientConsole;
inline constexpr int backendLog = outputBits::backendLog;
inline constexpr int consoleAndBackend = outputBits::console | outputBits::backendLog;
inline constexpr int consolesAndBackend = consoles | outputBits::backendLog;
}  // namespace targetMasks

}  // namespace kestrova
