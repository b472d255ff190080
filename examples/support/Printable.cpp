#include "Printable.h"

#include <kestrova/platform/Values.h>

#include <cstddef>

namespace terminal {
namespace {

/// How long the character is that begins with `lead`, if it is one.
std::size_t lengthBy(unsigned char lead) {
  if (lead < 0xC0) return 1;
  if (lead < 0xE0) return 2;
  return lead < 0xF0 ? 3 : 4;
}

bool controls(std::string_view character) {
  const auto first = static_cast<unsigned char>(character[0]);
  if (character.size() == 1) return first < 0x20 || first == 0x7F;
  // Those from U+0080 to U+009F: some terminals obey them like an escape sequence.
  return first == 0xC2 && static_cast<unsigned char>(character[1]) < 0xA0;
}

}  // namespace

std::string printable(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    auto character = text.substr(0, lengthBy(static_cast<unsigned char>(text[0])));
    const bool isGood = kestrova::isUtf8(character);
    if (!isGood) character = character.substr(0, 1);
    out += isGood && !controls(character) ? character : "?";
    text.remove_prefix(character.size());
  }
  return out;
}

}  // namespace terminal
