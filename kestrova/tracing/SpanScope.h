#pragma once

#include <kestrova/tracing/TraceCategories.h>
#include <kestrova/tracing/TraceValue.h>
#include <kestrova/tracing/Uuid.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kestrova {

/// The handle of a timed operation, kept by whoever started it until its end and passed down as the
/// parent of others. A value: copies stand for the same span, and nothing happens when one goes.
///
/// Where no output took the start, no text is made and no time is read, and nobody is told of the
/// end either; an output that comes in between knows nothing of this span. It is a parent still.
class SpanScope {
public:
  std::string id() const { return _id.text(); }
  /// What follows is empty, or 0, when no output took the span.
  std::string_view name() const { return _told ? _told->name : std::string_view(); }
  /// Milliseconds since 1970.
  std::int64_t startTime() const { return _told ? _told->startTime : 0; }
  TraceAttributes attributes() const { return _told ? _told->attributes : TraceAttributes(); }
  std::optional<std::string> parentId() const { return _told ? _told->parentId : std::nullopt; }

  EventCategory category() const { return _category; }
  /// The bits of the outputs the span goes to; 0 for a span that goes by its category.
  int targetMask() const { return _targetMask; }

private:
  friend class SdkTracer;
  struct Told {
    std::string name;
    std::int64_t startTime;
    TraceAttributes attributes;
    std::optional<std::string> parentId;
  };

  SpanScope(EventCategory category, int targetMask)
      : _category(category), _targetMask(targetMask) {}

  Uuid _id = Uuid::fresh();
  std::shared_ptr<const Told> _told;
  EventCategory _category;
  int _targetMask;
};

/// A span given as a parent, or none: `.parentScope = &span`, `= span`, `= optionalSpan`.
class ParentSpan {
public:
  ParentSpan() = default;
  ParentSpan(const SpanScope* span) : _span(span) {}
  ParentSpan(const SpanScope& span) : _span(&span) {}
  ParentSpan(const std::optional<SpanScope>& span) : _span(span ? &*span : nullptr) {}
  ParentSpan(const std::optional<SpanScope>* span) : ParentSpan(*span) {}
  explicit operator bool() const { return _span != nullptr; }
  const SpanScope* operator->() const { return _span; }

private:
  const SpanScope* _span = nullptr;
};

}  // namespace kestrova
