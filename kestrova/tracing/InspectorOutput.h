#pragma once

#include <kestrova/tracing/TraceOutput.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

/// One thing that the tracer told.
struct InspectorEvent {
  enum class EventType : std::uint8_t { spanStarted, spanEnded, event, log };

  /// The span's; one of its own for an event.
  std::string id{};
  std::string name{};
  std::optional<std::string> parentId{};
  /// Milliseconds since 1970.
  std::int64_t timestamp = 0;
  EventType type = EventType::event;
  std::optional<std::int64_t> durationMs{};
  std::optional<bool> success{};
  std::optional<std::string> message{};
  TraceAttributes attributes{};
  EventCategory category = EventCategory::internalLog;
};

/// Hears each event as it comes, on the thread that traced it, several at once. What the listener
/// traces itself is kept as well, and not told to it.
class InspectorListener {
public:
  virtual ~InspectorListener() = default;
  virtual void onNewEvent(const InspectorEvent& event) = 0;
};

struct InspectorOutputOptions {
  EventCategories subscribedCategories = {EventCategory::internalLog, EventCategory::debug,
                                          EventCategory::realtime,    EventCategory::telemetry,
                                          EventCategory::warn,        EventCategory::error,
                                          EventCategory::backendError};
  bool canAccessSensitiveData = false;
  bool respectsLogLevel = false;
  LogLevel configuredLevel = LogLevel::info;
  /// The newest stay; there is always room for one.
  std::size_t maxBufferSize = 1000;
  /// An operation that succeeds later than this is marked as slow.
  std::int64_t slowOpThresholdMs = 1000;
  /// Milliseconds since 1970; the system's clock when there is none.
  std::function<std::int64_t()> wallClockMs{};
};

/// Keeps the newest events in memory, for a developer's view of a running meeting. Registered by
/// hand: `SdkTracer::shared().registerOutput(std::make_shared<InspectorOutput>())`. What it keeps
/// goes when the meeting ends.
class InspectorOutput final : public TraceOutput {
public:
  explicit InspectorOutput(InspectorOutputOptions options = {});

  /// Held weakly; nothing takes it away.
  void setListener(std::weak_ptr<InspectorListener> listener);
  /// What is kept, the oldest first.
  std::vector<InspectorEvent> buffer() const;
  /// Keeps the event in place of the oldest, and tells the listener, with no lock held.
  void addEvent(InspectorEvent event);

  EventCategories subscribedCategories() const override { return _options.subscribedCategories; }
  bool canAccessSensitiveData() const override { return _options.canAccessSensitiveData; }
  bool respectsLogLevel() const override { return _options.respectsLogLevel; }
  int outputBit() const override { return outputBits::inspector; }
  void onSpanStarted(const SpanStart& span) override;
  void onSpanEnded(const SpanEnd& span) override;
  void onEvent(const TraceEvent& event) override;
  void setLogLevel(LogLevel level) override;
  void clearSpanHistory() override;

private:
  bool takes(EventCategory category) const;

  InspectorOutputOptions _options;  // configuredLevel under _lock, the rest constant
  mutable std::mutex _lock;
  std::deque<InspectorEvent> _buffer;
  std::weak_ptr<InspectorListener> _listener;
};

}  // namespace kestrova
