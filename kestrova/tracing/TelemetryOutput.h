#pragma once

#include <kestrova/tracing/Telemetry.h>
#include <kestrova/tracing/TraceOutput.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>

namespace kestrova {

struct TelemetryOutputOptions {
  EventCategories subscribedCategories;
  bool canAccessSensitiveData = true;
  bool respectsLogLevel = false;
  /// The telemetry of the meeting that was joined last; nothing before the first.
  std::function<std::shared_ptr<Telemetry>()> activeTelemetry;
};

/// Hands the tracer's spans and events to whichever meeting's telemetry is active at that moment,
/// and keeps what comes before there is one. Lives as long as the process.
///
/// A span stays known after its end, so that what comes later finds it as parent. Of 512 spans, the
/// one that ended last makes room for the next.
class TelemetryOutput final : public TraceOutput {
public:
  explicit TelemetryOutput(TelemetryOutputOptions options);
  ~TelemetryOutput() override;

  EventCategories subscribedCategories() const override { return _options.subscribedCategories; }
  bool canAccessSensitiveData() const override { return _options.canAccessSensitiveData; }
  bool respectsLogLevel() const override { return _options.respectsLogLevel; }
  int outputBit() const override { return outputBits::telemetry; }
  void onSpanStarted(const SpanStart& span) override;
  void onSpanEnded(const SpanEnd& span) override;
  void onEvent(const TraceEvent& event) override;
  void setLogLevel(LogLevel level) override;
  void clearSpanHistory() override;

private:
  using Span = std::shared_ptr<TelemetrySpan>;
  struct Known {
    Span span;
    bool ended = false;
  };
  using ActiveSpans = std::unordered_map<std::string, Known>;
  /// What is held back until there is telemetry.
  using Action = std::variant<SpanStart, SpanEnd, TraceEvent>;

  static constexpr std::size_t maxSpans = 512;
  static constexpr int maxPendingRetries = 3;
  static constexpr std::size_t maxPendingActions = 16'384;

  void bufferAction(Action action);
  void flushPendingActions();
  bool shows(EventCategory category) const;
  Span find(const std::optional<std::string>& id) const;
  void keep(const std::string& id, Span span);
  ActiveSpans::node_type evictOneSpanLocked();

  const TelemetryOutputOptions _options;

  mutable std::mutex _lock;  // never held while telemetry is called or a span let go of
  ActiveSpans _activeSpans;
  // In the order in which the ids first came; the entries of a map stay where they are.
  std::vector<ActiveSpans::value_type*> _spanOrder;
  bool _isTelemetryInitialized = false;
  LogLevel _configuredLevel = LogLevel::info;
  std::vector<Action> _pendingActions;
  int _pendingActionRetryCount = 0;
};

}  // namespace kestrova
