#pragma once

#include <kestrova/tracing/SdkTracer.h>

namespace kestrova {

struct RoutedMessageOptions {
  std::optional<ComponentCategory> component = ComponentCategory::meeting;
  TraceAttributeList attributes{};
  bool dashboardLog = false;
};

struct RoutedSpanOptions {
  TraceAttributeList attributes{};
  ParentSpan parent{};
  std::optional<ComponentCategory> component = ComponentCategory::meeting;
  EventCategory category = EventCategory::internalLog;
};

/// Sends lines only to the outputs of a mask, whatever their categories. Made on the spot:
/// `RoutedTracer(targetMasks::consoles).debug("...")`.
class RoutedTracer {
public:
  explicit RoutedTracer(int targetMask) : _targetMask(targetMask) {}

  using Options = RoutedMessageOptions;
  void error(const TraceText& message, const Options& options = {}) const;
  void backendError(const TraceText& message, const Options& options = {}) const;
  void warn(const TraceText& message, const Options& options = {}) const;
  /// There is no category of this name: the line goes as `telemetry`, which the level `info`
  /// admits.
  void info(const TraceText& message, const Options& options = {}) const;
  void debug(const TraceText& message, const Options& options = {}) const;
  void internalLog(const TraceText& message, const Options& options = {}) const;

  [[nodiscard]] SpanScope startSpan(const TraceText& spanName,
                                    const RoutedSpanOptions& options = {}) const;

private:
  void send(const TraceText& message, const Options& options, EventCategory category) const;

  int _targetMask;
};

}  // namespace kestrova
