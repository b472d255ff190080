#include <kestrova/tracing/TelemetryOutput.h>

#include <boost/container/small_vector.hpp>

#include <algorithm>
#include <iterator>
#include <utility>

namespace kestrova {
namespace {

constexpr std::string_view categoryKey = "category";

/// The attributes with the category, which goes before one that a caller gave that name.
class WithCategory {
public:
  WithCategory(const TraceAttributes& attributes, EventCategory category) {
    _all.reserve(attributes.size() + 1);
    for (const auto& [key, value] : attributes)
      if (key != categoryKey) _all.push_back({key, value});
    _all.push_back({categoryKey, rawValue(category)});
  }
  operator TelemetryAttributes() const { return {_all.data(), _all.size()}; }

private:
  boost::container::small_vector<TelemetryAttribute, 16> _all;
};

std::vector<TelemetryAttribute> views(const TraceAttributes& attributes) {
  std::vector<TelemetryAttribute> all;
  all.reserve(attributes.size());
  for (const auto& [key, value] : attributes) all.push_back({key, value});
  return all;
}

TelemetryStatus status(bool success, const std::string& description) {
  return success ? TelemetryStatus::ok() : TelemetryStatus::error(description);
}

}  // namespace

TelemetryOutput::TelemetryOutput(TelemetryOutputOptions options) : _options(std::move(options)) {}

TelemetryOutput::~TelemetryOutput() = default;

void TelemetryOutput::onSpanStarted(const SpanStart& span) {
  const auto telemetry = _options.activeTelemetry();
  if (!telemetry) return bufferAction(span);
  bool isFirst = false;
  {
    const std::lock_guard held(_lock);
    isFirst = !std::exchange(_isTelemetryInitialized, true);
  }
  if (isFirst) flushPendingActions();
  if (!shows(span.category)) return;
  const WithCategory attributes(span.attributes, span.category);
  if (auto started = telemetry->trace(span.name, attributes, find(span.parentId)))
    keep(span.id, std::move(started));
}

void TelemetryOutput::onSpanEnded(const SpanEnd& span) {
  const auto telemetry = _options.activeTelemetry();
  if (!telemetry) return bufferAction(span);
  Span ended;
  {
    const std::lock_guard held(_lock);
    const auto found = _activeSpans.find(span.id);
    if (found == _activeSpans.end()) return;
    found->second.ended = true;
    ended = found->second.span;
  }
  telemetry->completeSpan(ended, status(span.success, span.message), span.message,
                          views(span.attributes));
}

void TelemetryOutput::onEvent(const TraceEvent& event) {
  const auto telemetry = _options.activeTelemetry();
  if (!telemetry) return bufferAction(event);
  if (!shows(event.category)) return;
  const WithCategory attributes(event.attributes, event.category);
  telemetry->traceAutoComplete(event.name, attributes, find(event.parentId),
                               status(event.success.value_or(true), "Error while adding trace."));
}

void TelemetryOutput::setLogLevel(LogLevel level) {
  const std::lock_guard held(_lock);
  _configuredLevel = level;
}

void TelemetryOutput::clearSpanHistory() {
  ActiveSpans spans;  // these go when the lock is free again
  std::vector<Action> actions;
  const std::lock_guard held(_lock);
  spans.swap(_activeSpans);
  actions.swap(_pendingActions);
  _spanOrder.clear();
  _isTelemetryInitialized = false;
  _pendingActionRetryCount = 0;
}

void TelemetryOutput::bufferAction(Action action) {
  const std::lock_guard held(_lock);
  if (_pendingActionRetryCount >= maxPendingRetries) return;
  // Far more than a join brings about: a process may go on for days without another.
  if (_pendingActions.size() < maxPendingActions) _pendingActions.push_back(std::move(action));
}

void TelemetryOutput::flushPendingActions() {
  std::vector<Action> actions;
  {
    const std::lock_guard held(_lock);
    actions.swap(_pendingActions);
    ++_pendingActionRetryCount;
  }
  struct {
    TelemetryOutput& output;
    void operator()(const SpanStart& span) const { output.onSpanStarted(span); }
    void operator()(const SpanEnd& span) const { output.onSpanEnded(span); }
    void operator()(const TraceEvent& event) const { output.onEvent(event); }
  } repeat{*this};
  for (const auto& action : actions) std::visit(repeat, action);
}

bool TelemetryOutput::shows(EventCategory category) const {
  if (!_options.respectsLogLevel) return true;
  const std::lock_guard held(_lock);
  return admits(_configuredLevel, category);
}

TelemetryOutput::Span TelemetryOutput::find(const std::optional<std::string>& id) const {
  if (!id) return nullptr;
  const std::lock_guard held(_lock);
  const auto found = _activeSpans.find(*id);
  return found == _activeSpans.end() ? nullptr : found->second.span;
}

/// `span` leaves with what it takes the place of, when the lock is free again.
void TelemetryOutput::keep(const std::string& id, Span span) {
  const std::lock_guard held(_lock);
  if (const auto known = _activeSpans.find(id); known != _activeSpans.end()) {
    known->second.span.swap(span);
    return;
  }
  // The new one has not ended: it is never what makes room for itself.
  ActiveSpans::node_type place;
  if (_spanOrder.size() >= maxSpans) place = evictOneSpanLocked();
  if (place.empty()) {
    const auto added = _activeSpans.try_emplace(id).first;
    added->second.span.swap(span);
    _spanOrder.push_back(&*added);
    return;
  }
  place.key() = id;
  place.mapped().ended = false;
  place.mapped().span.swap(span);
  _spanOrder.push_back(&*_activeSpans.insert(std::move(place)).position);
}

/// The newest that has ended; where none has, the oldest but one, since the oldest is what the
/// others lie in. Gives what was taken out, with its span.
TelemetryOutput::ActiveSpans::node_type TelemetryOutput::evictOneSpanLocked() {
  const auto newestEnded = std::find_if(_spanOrder.rbegin(), _spanOrder.rend(),
                                        [](const auto* each) { return each->second.ended; });
  if (newestEnded == _spanOrder.rend() && _spanOrder.size() < 2) return {};
  const auto taken = newestEnded != _spanOrder.rend() ? std::prev(newestEnded.base())
                                                      : std::next(_spanOrder.begin());
  auto evicted = _activeSpans.extract(_activeSpans.find((*taken)->first));
  _spanOrder.erase(taken);
  return evicted;
}

}  // namespace kestrova
