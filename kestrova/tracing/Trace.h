#pragma once

#include <kestrova/tracing/SdkTracer.h>

#include <exception>
#include <string>
#include <utility>

namespace kestrova {

// The few forms in which the library itself traces. What a meeting does is told by its spans; the
// points within them are for whoever looks inside, and no console shows them at any level.

/// A step on the way: for outputs that an application's developer registers to look inside.
inline void trace(TraceText name, TraceAttributeList attributes = {}, ParentSpan parent = {}) {
  SdkTracer::shared().traceEvent(
      name,
      {.attributes = attributes, .parentScope = parent, .category = EventCategory::internalLog});
}

/// A line for the developer of the application, on consoles at the level `debug`.
inline void traceDebug(TraceText name, TraceAttributeList attributes = {}, ParentSpan parent = {}) {
  SdkTracer::shared().traceEvent(
      name, {.attributes = attributes, .parentScope = parent, .category = EventCategory::debug});
}

/// Something that went wrong, which whoever develops or runs the application has to know.
inline void traceError(TraceText name, TraceAttributeList attributes = {}, ParentSpan parent = {}) {
  SdkTracer::shared().traceEvent(name, {.attributes = attributes,
                                        .parentScope = parent,
                                        .category = EventCategory::error,
                                        .success = false});
}

/// A failure for whoever runs the application and for the back end, without a span of its own.
inline void traceRouted(TraceText name, TraceAttributeList attributes = {}) {
  SdkTracer::shared().routedEvent(name, {.attributes = attributes,
                                         .targetMask = targetMasks::consolesAndBackend,
                                         .category = EventCategory::error});
}

/// Starts a span of the kind that every operation of interest opens: consoles show it at the level
/// `info`, and it goes to the telemetry service.
inline SpanScope openSpan(TraceText name, TraceAttributeList attributes = {},
                          ParentSpan parent = {}) {
  return SdkTracer::shared().startSpan(
      name, {.attributes = attributes, .parentSpan = parent, .category = EventCategory::telemetry});
}

/// A span that lasts as long as this object, and has succeeded unless `fail` or `interrupt` said
/// otherwise, or an exception is what ends it.
class ScopedSpan {
public:
  explicit ScopedSpan(TraceText name, TraceAttributeList attributes = {}, ParentSpan parent = {})
      : _scope(openSpan(name, attributes, parent)) {}
  ~ScopedSpan() {
    if (_success && std::uncaught_exceptions() > _exceptions) interrupt("interrupted by an error");
    SdkTracer::shared().endSpan(_scope, {.success = _success, .message = _message});
  }
  ScopedSpan(const ScopedSpan&) = delete;
  ScopedSpan& operator=(const ScopedSpan&) = delete;

  const SpanScope& scope() const { return _scope; }
  void event(TraceText name, TraceAttributeList attributes = {}) {
    trace(name, attributes, _scope);
  }
  /// Traces `message` as an error of the span and lets it end as failed.
  void fail(std::string message, TraceAttributeList attributes = {}) {
    traceError(message, attributes, _scope);
    interrupt(std::move(message));
  }
  /// Lets it end as not successful: what it stood for was given up, which is no error of its own.
  void interrupt(std::string message) {
    _success = false;
    _message = std::move(message);
  }
  void interruptByDrop() { interrupt("interrupted by the loss of the connection"); }

private:
  SpanScope _scope;
  const int _exceptions = std::uncaught_exceptions();
  bool _success = true;
  std::string _message;
};

}  // namespace kestrova
