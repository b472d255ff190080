#pragma once

#include <kestrova/tracing/TraceCategories.h>
#include <kestrova/tracing/TraceValue.h>
#include <kestrova/tracing/Uuid.h>

#include <cstdint>
#include <optional>
#include <string>

namespace kestrova {

/// The handle of a timed operation, kept by whoever started it until its end and passed down as the
/// parent of others. A value: copies stand for the same span, and nothing happens when one goes.
class SpanScope {
public:
  std::string id() const { return _id.text(); }
  const std::string& name() const { return _name; }
  /// Milliseconds since 1970.
  std::int64_t startTime() const { return _startTime; }
  /// What the span was started with; left empty when no output took the span.
  const TraceAttributes& attributes() const { return _attributes; }
  std::optional<std::string> parentId() const {
    return _parentId ? std::optional(_parentId->text()) : std::nullopt;
  }
  EventCategory category() const { return _category; }
  /// The bits of the outputs the span goes to; 0 for a span that goes by its category.
  int targetMask() const { return _targetMask; }

private:
  friend class SdkTracer;
  SpanScope() = default;

  Uuid _id;
  std::string _name;
  std::int64_t _startTime = 0;
  TraceAttributes _attributes;
  std::optional<Uuid> _parentId;
  EventCategory _category = EventCategory::internalLog;
  int _targetMask = 0;
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
