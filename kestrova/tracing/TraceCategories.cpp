#include <kestrova/tracing/TraceCategories.h>

#include <array>

namespace kestrova {
namespace {

constexpr std::array<std::string_view, 7> categoryTexts = {
    "INTERNAL", "DEBUG", "REALTIME", "TELEMETRY", "WARN", "ERROR", "BACKEND_ERROR"};
constexpr std::array<std::string_view, 7> componentTexts = {
    "MEDIA", "TRANSPORT", "NETWORK", "MEETING", "PARTICIPANT", "INTERNAL", "INFO"};
constexpr std::array<std::string_view, 6> levelNames = {"NONE", "ERROR", "WARN",
                                                        "INFO", "DEBUG", "ALL"};

using enum EventCategory;
constexpr std::array<EventCategories, 6> admitted = {{
    {},
    {backendError, error},
    {backendError, error, warn},
    {backendError, error, warn, telemetry},
    {backendError, error, warn, telemetry, debug},
    {backendError, error, warn, telemetry, debug, realtime},
}};

}  // namespace

std::string_view rawValue(EventCategory category) {
  return categoryTexts.at(static_cast<std::size_t>(category));
}

std::string_view rawValue(ComponentCategory component) {
  return componentTexts.at(static_cast<std::size_t>(component));
}

std::string_view upperCaseName(LogLevel level) {
  return levelNames.at(static_cast<std::size_t>(level));
}

bool admits(LogLevel level, EventCategory category) {
  return admitted.at(static_cast<std::size_t>(level)).contains(category);
}

}  // namespace kestrova
