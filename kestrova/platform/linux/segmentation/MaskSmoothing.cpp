#include <kestrova/platform/linux/segmentation/MaskSmoothing.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <utility>

namespace kestrova::segmentation {
namespace {

/// What is new counts by this much where little changes: noise goes, a person who moves stays.
constexpr float leastWeight = 0.35F;
/// A change of this much is no noise, and counts at once.
constexpr float certainChange = 0.45F;
/// The network's doubts on both sides of a border: below is background, above is person.
constexpr float surelyBackground = 0.25F;
constexpr float surelyPerson = 0.75F;

std::uint8_t level(float value) {
  const float place = (value - surelyBackground) / (surelyPerson - surelyBackground);
  const float x = std::clamp(place, 0.0F, 1.0F);
  return static_cast<std::uint8_t>(x * x * (3 - 2 * x) * 255 + 0.5F);
}

/// The middle of three neighbours, with a weight of a half.
std::uint8_t between(int before, int here, int after) {
  return static_cast<std::uint8_t>((before + 2 * here + after + 2) / 4);
}

}  // namespace

MaskSmoothing::MaskSmoothing(int width, int height)
    : _width(width),
      _height(height),
      _calm(static_cast<std::size_t>(width) * static_cast<std::size_t>(height)),
      _rows(_calm.size()),
      _mask(_calm.size()) {}

MaskView MaskSmoothing::take(std::span<const float> network) {
  follow(network);
  for (std::size_t i = 0; i < _mask.size(); ++i) _mask[i] = level(_calm[i]);
  softenRows();
  softenColumns();
  return {.pixels = _mask.data(), .stride = _width, .width = _width, .height = _height};
}

void MaskSmoothing::follow(std::span<const float> network) {
  if (!std::exchange(_hasBefore, true)) {
    std::copy(network.begin(), network.end(), _calm.begin());
    return;
  }
  for (std::size_t i = 0; i < _calm.size(); ++i) {
    const float change = network[i] - _calm[i];
    const float weight =
        std::min(1.0F, leastWeight + (1 - leastWeight) * std::abs(change) / certainChange);
    _calm[i] += weight * change;
  }
}

void MaskSmoothing::softenRows() {
  for (int y = 0; y < _height; ++y) {
    const auto* from = _mask.data() + static_cast<std::ptrdiff_t>(y) * _width;
    auto* to = _rows.data() + static_cast<std::ptrdiff_t>(y) * _width;
    to[0] = from[0];
    to[_width - 1] = from[_width - 1];
    for (int x = 1; x + 1 < _width; ++x) to[x] = between(from[x - 1], from[x], from[x + 1]);
  }
}

void MaskSmoothing::softenColumns() {
  for (int y = 0; y < _height; ++y) {
    const auto* here = _rows.data() + static_cast<std::ptrdiff_t>(y) * _width;
    const auto* above = y > 0 ? here - _width : here;
    const auto* below = y + 1 < _height ? here + _width : here;
    auto* to = _mask.data() + static_cast<std::ptrdiff_t>(y) * _width;
    for (int x = 0; x < _width; ++x) to[x] = between(above[x], here[x], below[x]);
  }
}

}  // namespace kestrova::segmentation
