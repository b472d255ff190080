#pragma once

#include <array>
#include <cstdint>

namespace kestrova {

constexpr int kGlyphWidth = 5;
constexpr int kGlyphHeight = 7;
/// The rows of a character from the top; the leftmost column is the highest of five bits.
using Glyph = std::array<std::uint8_t, kGlyphHeight>;

/// Capital letters stand for small ones; a character without a shape is blank.
const Glyph& glyphOf(char character);

}  // namespace kestrova
