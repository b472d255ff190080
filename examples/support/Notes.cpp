#include "Notes.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numbers>

namespace speech {
namespace {

constexpr int rate = 48'000, noteSamples = rate / 2, soundingSamples = rate * 3 / 10;
constexpr int edgeSamples = rate / 200;  // 5 ms; a hard edge would click
constexpr double lowest = 440, loudness = 8000;
constexpr int halfTones[] = {0, 2, 4, 7, 9, 12};  // any of them in a row make a tune

}  // namespace

std::vector<std::int16_t> notes(int count) {
  std::vector<std::int16_t> sound(static_cast<std::size_t>(std::max(0, count)) * noteSamples);
  for (int note = 0; note < count; ++note) {
    const double hertz = lowest * std::exp2(halfTones[note % std::size(halfTones)] / 12.0);
    auto* const start = &sound[static_cast<std::size_t>(note) * noteSamples];
    for (int n = 0; n < soundingSamples; ++n) {
      const int toEdge = std::min({n, soundingSamples - n, edgeSamples});
      const double strength = loudness * toEdge / edgeSamples;
      start[n] =
          static_cast<std::int16_t>(strength * std::sin(2 * std::numbers::pi * hertz * n / rate));
    }
  }
  return sound;
}

}  // namespace speech
