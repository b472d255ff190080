#include "Text.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <optional>

namespace kestrova::meet {
namespace {

bool continues(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// Enough for any year that a clock shows.
constexpr std::size_t mostDigits = 15;

std::optional<std::time_t> timeOf(std::string_view timestamp) {
  const std::string text(timestamp);
  if (!text.empty() && text.size() <= mostDigits &&
      text.find_first_not_of("0123456789") == std::string::npos)
    return static_cast<std::time_t>(std::stoll(text) / 1000);
  std::tm utc{};
  const char* parsed = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &utc);
  std::string_view zone(parsed ? parsed : "");
  zone.remove_prefix(std::min(zone.find_first_not_of(".0123456789"), zone.size()));
  if (zone != "Z") return std::nullopt;
  return timegm(&utc);
}

}  // namespace

std::size_t columnsOf(std::string_view text) {
  std::size_t count = 0;
  for (const char c : text) count += continues(c) ? 0 : 1;
  return count;
}

std::string shortened(std::string_view text, std::size_t columns) {
  if (columnsOf(text) <= columns) return std::string(text);
  std::size_t end = 0;
  for (std::size_t seen = 0; end < text.size(); ++end)
    if (!continues(text[end]) && ++seen == columns) break;
  return std::string(text.substr(0, end)) + "…";
}

std::string fitted(std::string_view text, std::size_t columns) {
  auto out = shortened(text, columns);
  out.append(columns - std::min(columns, columnsOf(out)), ' ');
  return out;
}

std::string fittedRight(std::string_view text, std::size_t columns) {
  const auto out = shortened(text, columns);
  return std::string(columns - std::min(columns, columnsOf(out)), ' ') + out;
}

std::string fittedEnd(std::string_view text, std::size_t columns) {
  auto left = columnsOf(text);
  while (left > columns) {
    text.remove_prefix(1);
    while (!text.empty() && continues(text.front())) text.remove_prefix(1);
    --left;
  }
  return std::string(text);
}

std::string fixed(double value, int decimals) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%.*f", decimals, value);
  return buffer;
}

std::string clockTime(std::string_view timestamp) {
  const auto moment = timeOf(timestamp);
  if (!moment) return "--:--:--";
  const std::time_t then = *moment;
  const std::time_t now = std::time(nullptr);
  std::tm local{}, today{};
  localtime_r(&then, &local);
  localtime_r(&now, &today);
  const bool isToday = local.tm_year == today.tm_year && local.tm_yday == today.tm_yday;
  char out[64];
  return {out, std::strftime(out, sizeof out, isToday ? "%H:%M:%S" : "%F %H:%M:%S", &local)};
}

}  // namespace kestrova::meet
