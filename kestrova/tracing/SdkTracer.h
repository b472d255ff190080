#pragma once

#include <kestrova/tracing/Redaction.h>
#include <kestrova/tracing/SpanScope.h>
#include <kestrova/tracing/TraceCategories.h>
#include <kestrova/tracing/TraceOutput.h>
#include <kestrova/tracing/TraceValue.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

namespace kestrova {

struct TraceEventOptions {
  TraceAttributeList attributes{};
  ParentSpan parentScope{};
  /// Goes before `parentScope`.
  std::optional<std::string_view> parentId{};
  std::optional<ComponentCategory> component = ComponentCategory::meeting;
  EventCategory category = EventCategory::internalLog;
  bool success = true;
  bool dashboardLog = false;
};

struct StartSpanOptions {
  TraceAttributeList attributes{};
  ParentSpan parentSpan{};
  std::optional<ComponentCategory> component = ComponentCategory::meeting;
  EventCategory category = EventCategory::internalLog;
  std::optional<bool> dashboardLog = false;
};

struct EndSpanOptions {
  /// The span's own when absent.
  std::optional<EventCategory> category{};
  /// Reach the outputs as they are: nothing is removed or redacted.
  TraceAttributeList attributes{};
  bool success = true;
  std::string_view message{};
  bool dashboardLog = false;
};

struct RoutedEventOptions {
  std::optional<ComponentCategory> component = ComponentCategory::meeting;
  TraceAttributeList attributes{};
  int targetMask = 0;
  EventCategory category = EventCategory::internalLog;
  bool dashboardLog = false;
};

struct RoutedStartSpanOptions {
  TraceAttributeList attributes{};
  ParentSpan parentObj{};
  std::optional<ComponentCategory> component = ComponentCategory::meeting;
  EventCategory category = EventCategory::internalLog;
  int targetMask = 0;
};

/// The hub through which the whole library reports. Fans every event and span out to the outputs
/// that take it and hides secrets from those that may not see them. Any thread may call anything.
///
/// An event that no output takes costs one atomic load, and a span an identifier more: neither
/// their names nor their attributes are turned into text. Call sites use the free functions below:
///
///     traceEvent("Meeting State: CONNECTED",
///                {.attributes = {{"peerId", id}}, .parentScope = &span,
///                 .category = EventCategory::telemetry});
class SdkTracer {
public:
  /// Milliseconds since 1970.
  using WallClock = std::function<std::int64_t()>;
  using TelemetryOutputFactory = std::function<std::shared_ptr<TraceOutput>(
      EventCategories subscribedCategories, bool canAccessSensitiveData, bool respectsLogLevel)>;

  static constexpr std::string_view TAG = "Kestrova";
  static std::int64_t systemWallClockMs();

  /// The process's tracer. Never destroyed, so that anything may trace until the process ends.
  static SdkTracer& shared() {
    static auto& tracer = *makeShared();
    return tracer;
  }

  explicit SdkTracer(WallClock wallClockMs = systemWallClockMs);
  SdkTracer(const SdkTracer&) = delete;
  SdkTracer& operator=(const SdkTracer&) = delete;

  /// Whether any output takes the category; for call sites whose arguments are costly to make.
  bool wants(EventCategory category) const {
    return _takenCategories.load(std::memory_order_relaxed).contains(category);
  }
  /// Whether any output has a bit of `targetMask`.
  bool wantsRouted(int targetMask) const {
    return (_takenBits.load(std::memory_order_relaxed) & targetMask) != 0;
  }

  void traceEvent(const TraceText& spanName, const TraceEventOptions& options = {}) {
    if (wants(options.category)) deliverEvent(spanName, options);
  }
  /// An event for the outputs of `targetMask`, whatever their categories.
  void routedEvent(const TraceText& name, const RoutedEventOptions& options) {
    if (wantsRouted(options.targetMask)) deliverRoutedEvent(name, options);
  }

  /// Always gives a span that can be a parent, also when nobody listens.
  [[nodiscard]] SpanScope startSpan(const TraceText& spanName,
                                    const StartSpanOptions& options = {}) {
    SpanScope scope(options.category, 0);
    if (wants(options.category)) deliverSpanStart(scope, spanName, options);
    return scope;
  }
  [[nodiscard]] SpanScope routedStartSpan(const TraceText& spanName,
                                          const RoutedStartSpanOptions& options);
  /// Without a scope, or for a span whose start nobody took, nothing happens. A span routed by mask
  /// ends at the outputs of that mask.
  void endSpan(const SpanScope& scope, const EndSpanOptions& options = {}) {
    if (scope._told) deliverSpanEnd(scope, options);
  }
  void endSpan(const std::optional<SpanScope>& scope, const EndSpanOptions& options = {}) {
    if (scope) endSpan(*scope, options);
  }

  /// Adds the output and gives it the level. An object that is listed already stays as it is. An
  /// event that is on its way just now may miss it.
  void registerOutput(const std::shared_ptr<TraceOutput>& output);
  /// Takes an output away; what is on its way to it just now still comes.
  void removeOutput(const std::shared_ptr<TraceOutput>& output);
  /// Sets the level of every output. `none` takes the client console away, any other brings it.
  void setLogLevel(LogLevel level);
  /// Make and register the output unless it is there.
  void ensureClientConsoleOutput();
  void ensureTelemetryOutput();
  /// How `ensureTelemetryOutput` makes its output; without one there is none. The shared tracer has
  /// one that makes a `TelemetryOutput`. Called with the tracer locked: must not call the tracer.
  void setTelemetryOutputFactory(TelemetryOutputFactory factory);
  /// Registers a meeting's backend log in place of the one there is, which comes back when the new
  /// one is cleared, unless it is `former`: that meeting's own until now.
  void setBackendOutput(const std::shared_ptr<TraceOutput>& output,
                        const std::shared_ptr<TraceOutput>& former = nullptr);
  /// Forgets them all.
  void clearBackendOutput();
  /// Forgets this one only.
  void clearBackendOutput(const std::shared_ptr<TraceOutput>& own);
  /// Has every output forget the spans of the meeting that ended.
  void clearSpanHistory();

  /// Replace what counts as secret or noise, and how secrets are shown, from the next event on.
  void setRedactionKeys(std::shared_ptr<const RedactionKeys> keys);
  void setRedactionConfig(RedactionConfig config);

private:
  using Outputs = std::vector<std::shared_ptr<TraceOutput>>;

  static SdkTracer* makeShared();

  void deliverEvent(const TraceText& name, const TraceEventOptions& options);
  void deliverRoutedEvent(const TraceText& name, const RoutedEventOptions& options);
  void deliverSpanStart(SpanScope& scope, const TraceText& name, const StartSpanOptions& options);
  void deliverSpanEnd(const SpanScope& scope, const EndSpanOptions& options);
  template <typename Record, typename Selects>
  void deliver(Record record, Selects selects, void (TraceOutput::*callback)(const Record&)) const;
  std::shared_ptr<const Outputs> outputs() const;
  void replaceOutputs(Outputs outputs);  // under _outputsLock
  void useNewestBackendLog();
  LogLevel globalLogLevel() const;
  std::shared_ptr<const Redaction> redaction() const;

  const WallClock _wallClockMs;

  // What the outputs take together, so that an event for nobody ends here.
  std::atomic<EventCategories> _takenCategories{EventCategories()};
  std::atomic<int> _takenBits{0};

  mutable std::mutex _outputsLock;
  std::shared_ptr<const Outputs> _outputs = std::make_shared<const Outputs>();

  mutable std::mutex _logLevelLock;
  LogLevel _globalLogLevel = LogLevel::info;

  // Taken before _outputsLock, so that a level change and its console come and go as one.
  std::mutex _outputRefsLock;
  std::shared_ptr<TraceOutput> _clientLogcatOutput;
  std::shared_ptr<TraceOutput> _telemetryLogcatOutput;
  std::shared_ptr<TraceOutput> _backendLogcatOutput;
  std::vector<std::shared_ptr<TraceOutput>> _backendLogs;  // of all meetings, the newest last
  TelemetryOutputFactory _makeTelemetryOutput;

  mutable std::mutex _redactionLock;
  std::shared_ptr<const Redaction> _redaction = std::make_shared<const Redaction>();
};

inline void traceEvent(const TraceText& spanName, const TraceEventOptions& options = {}) {
  SdkTracer::shared().traceEvent(spanName, options);
}

[[nodiscard]] inline SpanScope startSpan(const TraceText& spanName,
                                         const StartSpanOptions& options = {}) {
  return SdkTracer::shared().startSpan(spanName, options);
}

inline void endSpan(const SpanScope& scope, const EndSpanOptions& options = {}) {
  SdkTracer::shared().endSpan(scope, options);
}

inline void endSpan(const std::optional<SpanScope>& scope, const EndSpanOptions& options = {}) {
  SdkTracer::shared().endSpan(scope, options);
}

}  // namespace kestrova
