#include "TraceRecorder.h"

#include <algorithm>

namespace kestrova::test {

TraceRecorder& TraceRecorder::shared() {
  static auto& recorder = *[] {
    auto output = std::make_shared<TraceRecorder>();
    SdkTracer::shared().registerOutput(output);
    return output.get();
  }();
  return recorder;
}

void TraceRecorder::clear() {
  std::scoped_lock held(_lock);
  _lines.clear();
}

std::vector<std::string> TraceRecorder::texts() const {
  std::scoped_lock held(_lock);
  std::vector<std::string> all;
  for (const auto& line : _lines) all.push_back(line.text);
  return all;
}

long TraceRecorder::count(std::string_view text) const {
  std::scoped_lock held(_lock);
  return std::count_if(_lines.begin(), _lines.end(),
                       [&](const Line& line) { return line.text == text; });
}

std::string TraceRecorder::attribute(std::string_view text, std::string_view key) const {
  std::scoped_lock held(_lock);
  const auto found = std::find_if(_lines.rbegin(), _lines.rend(),
                                  [&](const Line& line) { return line.text == text; });
  if (found == _lines.rend()) return {};
  for (const auto& [name, value] : found->attributes)
    if (name == key) return value;
  return {};
}

EventCategories TraceRecorder::subscribedCategories() const {
  using enum EventCategory;
  return {internalLog, debug, realtime, telemetry, warn, error, backendError};
}

void TraceRecorder::keep(const std::string& text, const TraceAttributes& attributes) {
  std::scoped_lock held(_lock);
  _lines.push_back({text, attributes});
}

}  // namespace kestrova::test
