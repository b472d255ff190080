#include <kestrova/tracing/RoutedTracer.h>

namespace kestrova {

void RoutedTracer::error(const TraceText& message, const Options& options) const {
  send(message, options, EventCategory::error);
}

void RoutedTracer::backendError(const TraceText& message, const Options& options) const {
  send(message, options, EventCategory::backendError);
}

void RoutedTracer::warn(const TraceText& message, const Options& options) const {
  send(message, options, EventCategory::warn);
}

void RoutedTracer::info(const TraceText& message, const Options& options) const {
  send(message, options, EventCategory::telemetry);
}

void RoutedTracer::debug(const TraceText& message, const Options& options) const {
  send(message, options, EventCategory::debug);
}

void RoutedTracer::internalLog(const TraceText& message, const Options& options) const {
  send(message, options, EventCategory::internalLog);
}

SpanScope RoutedTracer::startSpan(const TraceText& spanName,
                                  const RoutedSpanOptions& options) const {
  return SdkTracer::shared().routedStartSpan(spanName, {.attributes = options.attributes,
                                                        .parentObj = options.parent,
                                                        .component = options.component,
                                                        .category = options.category,
                                                        .targetMask = _targetMask});
}

void RoutedTracer::send(const TraceText& message, const Options& options,
                        EventCategory category) const {
  SdkTracer::shared().routedEvent(message, {.component = options.component,
                                            .attributes = options.attributes,
                                            .targetMask = _targetMask,
                                            .category = category,
                                            .dashboardLog = options.dashboardLog});
}

}  // namespace kestrova
