#include <kestrova/tracing/ConsoleOutput.h>

#include <utility>

namespace kestrova {
namespace {

constexpr std::string_view componentKey = "component";

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

std::string attributeText(const TraceAttributes& attributes) {
  std::string text;
  for (const auto& [key, value] : attributes) {
    if (key == componentKey) continue;
    text += text.empty() ? " { " : ", ";
    text += key;
    text += ": ";
    text += value;
  }
  if (!text.empty()) text += " }";
  return text;
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
  auto line = lineStart(info.depth);
  line += "▶ [" + info.component + "] " + span.name + attributeText(span.attributes);
  _options.logger.log(logType(span.category), line);
}

void ConsoleLineOutput::onSpanEnded(const SpanEnd& span) {
  SpanInfo info;
  {
    const std::lock_guard lock(_lock);
    if (auto stored = _spanInfoMap.extract(span.id)) info = std::move(stored.mapped());
    if (!shows(info.category)) return;
  }
  auto line = lineStart(info.depth);
  line += "◀ [" + info.component + "] " + span.name;
  line += " (" + std::to_string(span.durationMs) + " ms " + (span.success ? "✓" : "✗") + ")";
  if (!span.message.empty() && span.message != "SUCCESS")
    line += " - " + span.message + attributeText(span.attributes);
  _options.logger.log(logType(info.category), line);
}

void ConsoleLineOutput::onEvent(const TraceEvent& event) {
  int depth = 0;
  {
    const std::lock_guard lock(_lock);
    if (!shows(event.category)) return;
    depth = depthBelow(event.parentId);
  }
  auto line = lineStart(depth);
  line += "⚡";
  const auto component = event.attributes.find(componentKey);
  if (component != event.attributes.end()) line += " [" + component->second + "]";
  line += " " + event.name + attributeText(event.attributes);
  _options.logger.log(logType(event.category), line);
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

std::string ConsoleLineOutput::lineStart(int depth) const {
  std::string line = _options.tag + ": ";
  for (int i = 0; i < depth; ++i) line += "|   ";
  return line;
}

ClientConsoleOutput::ClientConsoleOutput(ConsoleOutputOptions options)
    : ConsoleLineOutput(std::move(options), outputBits::clientConsole) {}

ConsoleOutput::ConsoleOutput(ConsoleOutputOptions options)
    : ConsoleLineOutput(std::move(options), outputBits::console) {}

}  // namespace kestrova
