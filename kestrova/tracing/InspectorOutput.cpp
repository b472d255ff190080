#include <kestrova/platform/Escaped.h>
#include <kestrova/tracing/InspectorOutput.h>
#include <kestrova/tracing/Redaction.h>
#include <kestrova/tracing/SdkTracer.h>
#include <kestrova/tracing/Uuid.h>

#include <utility>

namespace kestrova {
namespace {

using EventType = InspectorEvent::EventType;

/// Set while this thread is inside a listener, whose own traces must not bring it back.
thread_local bool isTelling = false;

void tell(InspectorListener& listener, const InspectorEvent& event) {
  isTelling = true;
  try {
    listener.onNewEvent(event);
  } catch (...) {
    reportEscaped("InspectorListener");
  }
  isTelling = false;
}

}  // namespace

InspectorOutput::InspectorOutput(InspectorOutputOptions options) : _options(std::move(options)) {
  if (!_options.wallClockMs) _options.wallClockMs = SdkTracer::systemWallClockMs;
}

void InspectorOutput::setListener(std::weak_ptr<InspectorListener> listener) {
  const std::lock_guard lock(_lock);
  _listener.swap(listener);
}

std::vector<InspectorEvent> InspectorOutput::buffer() const {
  const std::lock_guard lock(_lock);
  return {_buffer.begin(), _buffer.end()};
}

void InspectorOutput::addEvent(InspectorEvent event) {
  std::optional<InspectorEvent> oldest;  // released without the lock
  std::shared_ptr<InspectorListener> listener;
  std::optional<InspectorEvent> told;
  {
    const std::lock_guard lock(_lock);
    if (!isTelling) listener = _listener.lock();
    if (listener) told = event;
    if (!_buffer.empty() && _buffer.size() >= _options.maxBufferSize) {
      oldest = std::move(_buffer.front());
      _buffer.pop_front();
    }
    _buffer.push_back(std::move(event));
  }
  if (listener) tell(*listener, *told);
}

void InspectorOutput::onSpanStarted(const SpanStart& span) {
  if (!takes(span.category)) return;
  addEvent({.id = span.id,
            .name = span.name,
            .parentId = span.parentId,
            .timestamp = _options.wallClockMs(),
            .type = EventType::spanStarted,
            .attributes = span.attributes,
            .category = span.category});
}

void InspectorOutput::onSpanEnded(const SpanEnd& span) {
  if (!takes(span.category)) return;
  auto message = span.message;
  if (span.success && span.durationMs > _options.slowOpThresholdMs)
    message += " (Slow: " + std::to_string(span.durationMs) + "ms)";
  addEvent({.id = span.id,
            .name = span.name,
            .timestamp = _options.wallClockMs(),
            .type = EventType::spanEnded,
            .durationMs = span.durationMs,
            .success = span.success,
            .message = std::move(message),
            .attributes = endAttributes(span, *this),
            .category = span.category});
}

void InspectorOutput::onEvent(const TraceEvent& event) {
  if (!takes(event.category)) return;
  auto attributes = event.attributes;
  attributes.insert_or_assign("category", std::string(rawValue(event.category)));
  addEvent({.id = Uuid::fresh().text(),
            .name = event.name,
            .parentId = event.parentId,
            .timestamp = _options.wallClockMs(),
            .type = EventType::event,
            .success = event.success,
            .attributes = std::move(attributes),
            .category = event.category});
}

void InspectorOutput::setLogLevel(LogLevel level) {
  const std::lock_guard lock(_lock);
  _options.configuredLevel = level;
}

void InspectorOutput::clearSpanHistory() {
  std::deque<InspectorEvent> gone;
  const std::lock_guard lock(_lock);
  _buffer.swap(gone);
}

bool InspectorOutput::takes(EventCategory category) const {
  if (!_options.respectsLogLevel) return true;
  const std::lock_guard lock(_lock);
  return admits(_options.configuredLevel, category);
}

}  // namespace kestrova
