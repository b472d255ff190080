#pragma once

#include <cstdint>
#include <vector>

namespace speech {

/// So many notes, each higher than the one before until they start over: mono at 48 kHz, half a
/// second a note, of which 300 ms sound.
std::vector<std::int16_t> notes(int count);

}  // namespace speech
