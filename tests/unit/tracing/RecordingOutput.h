#pragma once

#include <kestrova/tracing/TraceOutput.h>

#include <functional>
#include <mutex>
#include <vector>

namespace kestrova {

/// Keeps everything that it is given.
class RecordingOutput : public TraceOutput {
public:
  RecordingOutput(EventCategories categories, bool seesSecrets, int bit = 0)
      : _categories(categories), _seesSecrets(seesSecrets), _bit(bit) {}

  EventCategories subscribedCategories() const override { return _categories; }
  bool canAccessSensitiveData() const override { return _seesSecrets; }
  bool respectsLogLevel() const override { return false; }
  int outputBit() const override { return _bit; }
  void onSpanStarted(const SpanStart& span) override { keep(starts, span); }
  void onSpanEnded(const SpanEnd& span) override { keep(ends, span); }
  void onEvent(const TraceEvent& event) override {
    keep(events, event);
    if (duringEvent) duringEvent();
  }
  void setLogLevel(LogLevel level) override { keep(levels, level); }

  /// For use while other threads still trace.
  bool gotEvents() {
    const std::lock_guard lock(_lock);
    return !events.empty();
  }

  std::vector<SpanStart> starts;
  std::vector<SpanEnd> ends;
  std::vector<TraceEvent> events;
  std::vector<LogLevel> levels;
  std::function<void()> duringEvent;

private:
  template <typename T>
  void keep(std::vector<T>& list, const T& item) {
    const std::lock_guard lock(_lock);
    list.push_back(item);
  }

  EventCategories _categories;
  bool _seesSecrets;
  int _bit;
  std::mutex _lock;
};

}  // namespace kestrova
