#include <kestrova/tracing/ConsoleOutput.h>
#include <kestrova/tracing/KestrovaTelemetry.h>
#include <kestrova/tracing/SdkTracer.h>
#include <kestrova/tracing/TelemetryOutput.h>
#include <kestrova/tracing/TracePipeline.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>

namespace kestrova {
namespace {

TraceAttributes preparedAttributes(const TraceAttributeList& list,
                                   std::optional<ComponentCategory> component) {
  auto attributes = list.prepared();
  if (component) attributes.insert_or_assign("component", std::string(rawValue(*component)));
  return attributes;
}

auto takesCategory(EventCategory category) {
  return [category](const TraceOutput& output) {
    return output.subscribedCategories().contains(category);
  };
}

auto hasBitOf(int targetMask) {
  return [targetMask](const TraceOutput& output) { return (output.outputBit() & targetMask) != 0; };
}

}  // namespace

SdkTracer::SdkTracer(WallClock wallClockMs) : _wallClockMs(std::move(wallClockMs)) {}

SdkTracer* SdkTracer::makeShared() {
  auto* tracer = new SdkTracer;
  if (!exportsTraces()) return tracer;
  tracer->setTelemetryOutputFactory(
      [](EventCategories categories, bool seesSecrets, bool respectsLogLevel) {
        return std::make_shared<TelemetryOutput>(
            TelemetryOutputOptions{.subscribedCategories = categories,
                                   .canAccessSensitiveData = seesSecrets,
                                   .respectsLogLevel = respectsLogLevel,
                                   .activeTelemetry = KestrovaTelemetry::activeInstance});
      });
  return tracer;
}

std::int64_t SdkTracer::systemWallClockMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

// The outputs get their record in the order of their registration. The redacted one is a copy only
// where somebody sees the other one.
template <typename Record, typename Selects>
void SdkTracer::deliver(Record record, Selects selects,
                        void (TraceOutput::*callback)(const Record&)) const {
  const auto all = outputs();
  bool hasOpen = false;
  bool hasHidden = false;
  for (const auto& output : *all)
    if (selects(*output)) (output->canAccessSensitiveData() ? hasOpen : hasHidden) = true;
  if (!hasOpen && !hasHidden) return;
  const auto hides = redaction();
  hides->removeAttributes(record.attributes);
  std::optional<Record> copy;
  if (hasOpen && hasHidden) copy = record;
  auto& hidden = copy ? *copy : record;
  if (hasHidden) hides->redactAttributes(hidden.attributes);
  for (const auto& output : *all)
    if (selects(*output)) ((*output).*callback)(output->canAccessSensitiveData() ? record : hidden);
}

void SdkTracer::deliverEvent(const TraceText& name, const TraceEventOptions& options) {
  TraceEvent event{.name = name.text(),
                   .attributes = preparedAttributes(options.attributes, options.component),
                   .category = options.category,
                   .success = options.success,
                   .dashboardLog = options.dashboardLog};
  if (options.parentId)
    event.parentId = std::string(*options.parentId);
  else if (options.parentScope)
    event.parentId = options.parentScope->id();
  deliver(std::move(event), takesCategory(options.category), &TraceOutput::onEvent);
}

void SdkTracer::deliverRoutedEvent(const TraceText& name, const RoutedEventOptions& options) {
  TraceEvent event{.name = name.text(),
                   .attributes = preparedAttributes(options.attributes, options.component),
                   .category = options.category,
                   .success = options.category != EventCategory::error,
                   .dashboardLog = options.dashboardLog};
  deliver(std::move(event), hasBitOf(options.targetMask), &TraceOutput::onEvent);
}

void SdkTracer::deliverSpanStart(SpanScope& scope, const TraceText& name,
                                 const StartSpanOptions& options) {
  const auto told = std::make_shared<SpanScope::Told>(SpanScope::Told{
      .name = name.text(),
      .startTime = _wallClockMs(),
      .attributes = preparedAttributes(options.attributes, options.component),
      .parentId = options.parentSpan ? std::optional(options.parentSpan->id()) : std::nullopt});
  scope._told = told;
  SpanStart start{.id = scope.id(),
                  .name = told->name,
                  .parentId = told->parentId,
                  .attributes = told->attributes,
                  .category = scope._category,
                  .dashboardLog = options.dashboardLog};
  const auto mask = scope._targetMask;
  if (mask != 0)
    deliver(std::move(start), hasBitOf(mask), &TraceOutput::onSpanStarted);
  else
    deliver(std::move(start), takesCategory(scope._category), &TraceOutput::onSpanStarted);
}

SpanScope SdkTracer::routedStartSpan(const TraceText& spanName,
                                     const RoutedStartSpanOptions& options) {
  SpanScope scope(options.category, options.targetMask);
  if (wantsRouted(options.targetMask))
    deliverSpanStart(scope, spanName,
                     {.attributes = options.attributes,
                      .parentSpan = options.parentObj,
                      .component = options.component,
                      .category = options.category,
                      .dashboardLog = std::nullopt});
  return scope;
}

void SdkTracer::deliverSpanEnd(const SpanScope& scope, const EndSpanOptions& options) {
  const auto category = options.category.value_or(scope._category);
  const bool byMask = scope._targetMask >= 1;
  if (byMask ? !wantsRouted(scope._targetMask) : !wants(category)) return;
  const SpanEnd end{.id = scope.id(),
                    .name = scope._told->name,
                    .category = category,
                    .durationMs = _wallClockMs() - scope._told->startTime,
                    .success = options.success,
                    .message = std::string(options.message),
                    .attributes = options.attributes.prepared(),
                    .dashboardLog = options.dashboardLog};
  const auto all = outputs();
  for (const auto& output : *all)
    if (byMask ? hasBitOf(scope._targetMask)(*output) : takesCategory(category)(*output))
      output->onSpanEnded(end);
}

void SdkTracer::registerOutput(const std::shared_ptr<TraceOutput>& output) {
  if (!output) return;
  const std::lock_guard lock(_outputsLock);
  if (std::find(_outputs->begin(), _outputs->end(), output) != _outputs->end()) return;
  auto longer = *_outputs;
  longer.push_back(output);
  replaceOutputs(std::move(longer));
  output->setLogLevel(globalLogLevel());
}

void SdkTracer::removeOutput(const std::shared_ptr<TraceOutput>& output) {
  const std::lock_guard lock(_outputsLock);
  auto shorter = *_outputs;
  std::erase(shorter, output);
  replaceOutputs(std::move(shorter));
}

void SdkTracer::replaceOutputs(Outputs outputs) {
  EventCategories categories;
  int bits = 0;
  for (const auto& output : outputs) {
    categories = categories | output->subscribedCategories();
    bits |= output->outputBit();
  }
  _outputs = std::make_shared<const Outputs>(std::move(outputs));
  _takenCategories.store(categories, std::memory_order_relaxed);
  _takenBits.store(bits, std::memory_order_relaxed);
}

void SdkTracer::ensureClientConsoleOutput() {
  const std::lock_guard lock(_outputRefsLock);
  if (_clientLogcatOutput) return;
  using enum EventCategory;
  _clientLogcatOutput = std::make_shared<ClientConsoleOutput>(ConsoleOutputOptions{
      .tag = std::string(TAG),
      .subscribedCategories = {debug, telemetry, warn, error, backendError, realtime},
      .canAccessSensitiveData = false,
      .respectsLogLevel = true,
      .configuredLevel = LogLevel::info});
  registerOutput(_clientLogcatOutput);
}

void SdkTracer::ensureTelemetryOutput() {
  const std::lock_guard lock(_outputRefsLock);
  if (_telemetryLogcatOutput || !_makeTelemetryOutput) return;
  using enum EventCategory;
  _telemetryLogcatOutput = _makeTelemetryOutput({telemetry, error, debug}, true, false);
  registerOutput(_telemetryLogcatOutput);
}

void SdkTracer::setTelemetryOutputFactory(TelemetryOutputFactory factory) {
  const std::lock_guard lock(_outputRefsLock);
  _makeTelemetryOutput = std::move(factory);
}

void SdkTracer::setLogLevel(LogLevel level) {
  {
    const std::lock_guard lock(_logLevelLock);
    _globalLogLevel = level;
  }
  if (level != LogLevel::none) {
    ensureClientConsoleOutput();
  } else {
    const std::lock_guard lock(_outputRefsLock);
    removeOutput(std::exchange(_clientLogcatOutput, nullptr));
  }
  ensureTelemetryOutput();
  traceEvent([&] { return "Kestrova Log Level set to: " + std::string(upperCaseName(level)); },
             {.category = EventCategory::telemetry});
  const std::lock_guard lock(_outputsLock);
  for (const auto& output : *_outputs) output->setLogLevel(level);
}

void SdkTracer::setBackendOutput(const std::shared_ptr<TraceOutput>& output,
                                 const std::shared_ptr<TraceOutput>& former) {
  const std::lock_guard lock(_outputRefsLock);
  std::erase(_backendLogs, former);
  _backendLogs.push_back(output);
  useNewestBackendLog();
}

void SdkTracer::clearBackendOutput() {
  const std::lock_guard lock(_outputRefsLock);
  _backendLogs.clear();
  useNewestBackendLog();
}

void SdkTracer::clearBackendOutput(const std::shared_ptr<TraceOutput>& own) {
  const std::lock_guard lock(_outputRefsLock);
  std::erase(_backendLogs, own);
  useNewestBackendLog();
}

/// With _outputRefsLock held. The new one comes before the old one goes: nothing is lost in
/// between.
void SdkTracer::useNewestBackendLog() {
  const auto newest = _backendLogs.empty() ? nullptr : _backendLogs.back();
  if (newest == _backendLogcatOutput) return;
  registerOutput(newest);
  removeOutput(std::exchange(_backendLogcatOutput, newest));
}

void SdkTracer::clearSpanHistory() {
  const auto all = outputs();
  for (const auto& output : *all) output->clearSpanHistory();
}

void SdkTracer::setRedactionKeys(std::shared_ptr<const RedactionKeys> keys) {
  const std::lock_guard lock(_redactionLock);
  _redaction = std::make_shared<const Redaction>(std::move(keys), _redaction->config());
}

void SdkTracer::setRedactionConfig(RedactionConfig config) {
  const std::lock_guard lock(_redactionLock);
  _redaction = std::make_shared<const Redaction>(_redaction->keys(), std::move(config));
}

std::shared_ptr<const SdkTracer::Outputs> SdkTracer::outputs() const {
  const std::lock_guard lock(_outputsLock);
  return _outputs;
}

LogLevel SdkTracer::globalLogLevel() const {
  const std::lock_guard lock(_logLevelLock);
  return _globalLogLevel;
}

std::shared_ptr<const Redaction> SdkTracer::redaction() const {
  const std::lock_guard lock(_redactionLock);
  return _redaction;
}

}  // namespace kestrova
