#include <kestrova/tracing/ConsoleOutput.h>
#include <kestrova/tracing/Redaction.h>

#include <utility>

namespace kestrova {
namespace {

constexpr std::string_view componentKey = "component";
constexpr std::string_view pointMark = "⚡";
constexpr std::size_t usualLine = 256;

/// The first level that admits the category.
LogLevel levelOf(EventCategory category) {
  switch (category) {
    case EventCategory::error:
    case EventCategory::backendError:
      return LogLevel::error;
    case EventCategory::warn:
      return LogLevel::warn;
    case EventCategory::telemetry:
      return LogLevel::info;
    case EventCategory::debug:
      return LogLevel::debug;
    default:
      return LogLevel::all;
  }
}

LogType logType(EventCategory category) {
  switch (category) {
    case EventCategory::internalLog:
    case EventCategory::debug:
      return LogType::debug;
    case EventCategory::backendError:
      return LogType::fault;
    case EventCategory::error:
      return LogType::error;
    default:
      return LogType::info;
  }
}

void appendAttributes(std::string& line, const TraceAttributes& attributes) {
  const char* before = " { ";
  for (const auto& [key, value] : attributes) {
    if (key == componentKey) continue;
    line.append(before).append(key).append(": ").append(value);
    before = ", ";
  }
  if (before[0] == ',') line += " }";
}

}  // namespace

ConsoleLineOutput::ConsoleLineOutput(ConsoleOutputOptions options, int outputBit)
    : _options(std::move(options)), _outputBit(outputBit) {}

void ConsoleLineOutput::onSpanStarted(const SpanStart& span) {
  SpanInfo info{.category = span.category};
  const auto component = span.attributes.find(componentKey);
  if (component != span.attributes.end()) info.component = component->second;
  {
    // Kept also when the line is not shown: its end and its children depend on it.
    const std::lock_guard lock(_lock);
    info.depth = depthBelow(span.parentId);
    _spanInfoMap.insert_or_assign(span.id, info);
    if (!shows(span.category)) return;
  }
  write({.category = span.category,
         .depth = info.depth,
         .mark = "▶",
         .component = info.component,
         .said = span.name},
        span.attributes);
}

void ConsoleLineOutput::onSpanEnded(const SpanEnd& span) {
  SpanInfo info;
  {
    const std::lock_guard lock(_lock);
    if (auto stored = _spanInfoMap.extract(span.id)) info = std::move(stored.mapped());
    if (!shows(info.category)) return;
  }
  auto said = span.name;
  said += " (" + std::to_string(span.durationMs) + " ms " + (span.success ? "✓" : "✗") + ")";
  const bool saysMore = !span.message.empty() && span.message != "SUCCESS";
  if (saysMore) said += " - " + span.message;
  write({.category = info.category,
         .depth = info.depth,
         .mark = "◀",
         .component = info.component,
         .said = said,
         .showsAttributes = saysMore},
        endAttributes(span, *this));
}

void ConsoleLineOutput::onEvent(const TraceEvent& event) {
  int depth = 0;
  {
    const std::lock_guard lock(_lock);
    if (!shows(event.category)) return;
    depth = depthBelow(event.parentId);
  }
  const auto component = event.attributes.find(componentKey);
  write({.category = event.category,
         .depth = depth,
         .mark = pointMark,
         .component = component == event.attributes.end() ? std::string_view() : component->second,
         .said = event.name},
        event.attributes);
}

/// To the application's handler if it takes the line, else as a line of the console.
void ConsoleLineOutput::write(const Words& words, const TraceAttributes& attributes) const {
  if (_options.logger.hasHandler() && hand(words, attributes)) return;
  std::string line;
  line.reserve(usualLine);
  line.append(_options.tag).append(": ");
  for (int i = 0; i < words.depth; ++i) line += "|   ";
  line += words.mark;
  if (!words.component.empty()) line.append(" [").append(words.component) += ']';
  line.append(" ").append(words.said);
  if (words.showsAttributes) appendAttributes(line, attributes);
  _options.logger.log(logType(words.category), line);
}

bool ConsoleLineOutput::hand(const Words& words, const TraceAttributes& attributes) const {
  std::string text;
  if (words.mark != pointMark) text.append(words.mark) += ' ';
  text += words.said;
  const auto level = levelOf(words.category);
  auto shown = _options.canAccessSensitiveData
                   ? Redaction::standard().redactIfNeeded(attributes, false)
                   : attributes;
  if (!words.component.empty()) shown.try_emplace(std::string(componentKey), words.component);
  return _options.logger.hand({level, text, shown});
}

void ConsoleLineOutput::setLogLevel(LogLevel level) {
  const std::lock_guard lock(_lock);
  _options.configuredLevel = level;
}

void ConsoleLineOutput::clearSpanHistory() {
  const std::lock_guard lock(_lock);
  _spanInfoMap.clear();
}

int ConsoleLineOutput::depthBelow(const std::optional<std::string>& parentId) const {
  if (!parentId) return 0;
  const auto parent = _spanInfoMap.find(*parentId);
  return parent == _spanInfoMap.end() ? 0 : parent->second.depth + 1;
}

bool ConsoleLineOutput::shows(EventCategory category) const {
  return !_options.respectsLogLevel || admits(_options.configuredLevel, category);
}

ClientConsoleOutput::ClientConsoleOutput(ConsoleOutputOptions options)
    : ConsoleLineOutput(std::move(options), outputBits::clientConsole) {}

ConsoleOutput::ConsoleOutput(ConsoleOutputOptions options)
    : ConsoleLineOutput(std::move(options), outputBits::console) {}

}  // namespace kestrova
