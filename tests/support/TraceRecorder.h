#pragma once

#include <kestrova/tracing/SdkTracer.h>

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova::test {

/// Everything that the process's tracer told since the last `clear`. One for the whole test
/// program, since the tracer keeps its outputs for good. Any thread.
class TraceRecorder final : public TraceOutput {
public:
  static TraceRecorder& shared();

  void clear();
  /// The texts of events and started spans, in order.
  std::vector<std::string> texts() const;
  bool has(std::string_view text) const { return count(text) > 0; }
  long count(std::string_view text) const;
  /// The attribute of the newest event or span of that text; empty when there is none.
  std::string attribute(std::string_view text, std::string_view key) const;

  EventCategories subscribedCategories() const override;
  bool canAccessSensitiveData() const override { return true; }
  bool respectsLogLevel() const override { return false; }
  int outputBit() const override {
    return outputBits::inspector | outputBits::console | outputBits::backendLog;
  }
  void onSpanStarted(const SpanStart& span) override { keep(span.name, span.attributes); }
  void onSpanEnded(const SpanEnd&) override {}
  void onEvent(const TraceEvent& event) override { keep(event.name, event.attributes); }
  void setLogLevel(LogLevel) override {}

private:
  struct Line {
    std::string text;
    TraceAttributes attributes;
  };
  void keep(const std::string& text, const TraceAttributes& attributes);

  mutable std::mutex _lock;
  std::vector<Line> _lines;
};

}  // namespace kestrova::test
