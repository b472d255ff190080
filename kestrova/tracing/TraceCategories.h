#pragma once

#include <kestrova/platform/EnumTexts.h>

#include <cstdint>
#include <initializer_list>
#include <string_view>

namespace kestrova {

/// What kind of line an event or span is; outputs subscribe by it.
enum class EventCategory : std::uint8_t {
  internalLog,
  debug,
  realtime,
  telemetry,
  warn,
  error,
  backendError
};

/// How much the outputs that respect it may show, each level adding to the one before.
enum class LogLevel : std::uint8_t { none, error, warn, info, debug, all };

/// Which piece of the library a line comes from.
enum class ComponentCategory : std::uint8_t {
  media,
  transport,
  network,
  meeting,
  participant,
  internal,
  info
};

/// A set of categories, as small as a number so that it can be kept in an atomic.
class EventCategories {
public:
  constexpr EventCategories() = default;
  constexpr EventCategories(std::initializer_list<EventCategory> categories) {
    for (auto category : categories) _bits |= bit(category);
  }
  constexpr bool contains(EventCategory category) const { return (_bits & bit(category)) != 0; }
  constexpr EventCategories operator|(EventCategories other) const {
    EventCategories both;
    both._bits = _bits | other._bits;
    return both;
  }
  constexpr bool operator==(const EventCategories&) const = default;

private:
  static constexpr std::uint32_t bit(EventCategory category) {
    return 1U << static_cast<unsigned>(category);
  }
  std::uint32_t _bits = 0;
};

/// The category's text, such as "BACKEND_ERROR".
std::string_view rawValue(EventCategory category);
/// The text of the attribute "component", such as "MEETING".
std::string_view rawValue(ComponentCategory component);
inline constexpr EnumTexts<LogLevel, 6> logLevelTexts{
    {"none", "error", "warn", "info", "debug", "all"}};
/// The level's name, such as "info".
constexpr std::string_view text(LogLevel level) {
  return logLevelTexts(level);
}
/// The level's name in upper case, such as "INFO".
std::string_view upperCaseName(LogLevel level);
/// Whether `level` lets lines of `category` through.
bool admits(LogLevel level, EventCategory category);

}  // namespace kestrova
