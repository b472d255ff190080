#include "Text.h"

#include <cstdio>

namespace kestrova::meet {
namespace {

bool continues(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

std::size_t columnsOf(std::string_view text) {
  std::size_t count = 0;
  for (const char c : text) count += continues(c) ? 0 : 1;
  return count;
}

std::string cut(std::string_view text, std::size_t columns) {
  if (columnsOf(text) <= columns) return std::string(text);
  std::size_t end = 0;
  for (std::size_t seen = 0; end < text.size(); ++end)
    if (!continues(text[end]) && ++seen == columns) break;
  return std::string(text.substr(0, end)) + "…";
}

}  // namespace

std::string printable(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    // C1 controls come as 0xC2 and a byte below 0xA0.
    const bool wideControl =
        c == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0;
    if (wideControl) ++i;
    out += c < 0x20 || c == 0x7F || wideControl ? '?' : text[i];
  }
  return out;
}

std::string fitted(std::string_view text, std::size_t columns) {
  auto out = cut(text, columns);
  out.append(columns - std::min(columns, columnsOf(out)), ' ');
  return out;
}

std::string fittedRight(std::string_view text, std::size_t columns) {
  const auto out = cut(text, columns);
  return std::string(columns - std::min(columns, columnsOf(out)), ' ') + out;
}

std::string fixed(double value, int decimals) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%.*f", decimals, value);
  return buffer;
}

}  // namespace kestrova::meet
