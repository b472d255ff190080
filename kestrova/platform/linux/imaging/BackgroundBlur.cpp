#include <kestrova/platform/linux/imaging/BackgroundBlur.h>

#include <libyuv.h>

#include <algorithm>
#include <cstddef>

namespace kestrova {
namespace {

/// Out of focus there is nothing to see at the full size.
constexpr int shrinking = 8;
/// In parts of the picture's longer side: as far as a point spreads in one pass.
constexpr int radiusPart = 32;
/// Three boxes, one after the other, are nearly a bell.
constexpr int passes = 3;
/// What counts of a pixel that is all person: nothing but the person is there to see.
constexpr float leastWeight = 0.004F;

/// The mean over `radius` on both sides, along a line of pixels `step` apart; the ends go on.
void boxAlong(float* line, std::ptrdiff_t step, int length, int radius, std::vector<float>& copy) {
  copy.resize(static_cast<std::size_t>(length + 2 * radius));
  for (int i = 0; i < length + 2 * radius; ++i)
    copy[static_cast<std::size_t>(i)] = line[step * std::clamp(i - radius, 0, length - 1)];
  float sum = 0;
  const int span = 2 * radius + 1;
  for (int i = 0; i < span; ++i) sum += copy[static_cast<std::size_t>(i)];
  const float part = 1.0F / static_cast<float>(span);
  for (int i = 0; i < length; ++i) {
    line[step * i] = sum * part;
    if (i + 1 < length)
      sum += copy[static_cast<std::size_t>(i + span)] - copy[static_cast<std::size_t>(i)];
  }
}

void boxes(std::vector<float>& plane, int width, int height, int radius, std::vector<float>& row) {
  for (int pass = 0; pass < passes; ++pass) {
    for (int y = 0; y < height; ++y)
      boxAlong(plane.data() + static_cast<std::ptrdiff_t>(y) * width, 1, width, radius, row);
    for (int x = 0; x < width; ++x) boxAlong(plane.data() + x, width, height, radius, row);
  }
}

void shrink(const MaskView& mask, std::vector<std::uint8_t>& into, int width, int height) {
  into.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
  libyuv::ScalePlane(mask.pixels, mask.stride, mask.width, mask.height, into.data(), width, width,
                     height, libyuv::kFilterBox);
}

}  // namespace

void BackgroundBlur::resize(const I420View& picture) {
  if (_large) {
    const auto there = _large->i420();
    if (there.width == picture.width && there.height == picture.height) return;
  }
  _large.emplace(picture.width, picture.height);
  _small.emplace(std::max(2, picture.width / shrinking), std::max(2, picture.height / shrinking));
}

std::optional<I420View> BackgroundBlur::around(const I420View& picture, const MaskView& mask) {
  if (picture.width < 2 || picture.height < 2) return std::nullopt;
  resize(picture);
  const auto small = _small->i420();
  libyuv::I420Scale(picture.y, picture.strideY, picture.u, picture.strideU, picture.v,
                    picture.strideV, picture.width, picture.height, _small->mutableY(),
                    small.strideY, _small->mutableU(), small.strideU, _small->mutableV(),
                    small.strideV, small.width, small.height, libyuv::kFilterBox);
  const int chromaWidth = small.strideU;
  const int chromaHeight = (small.height + 1) / 2;
  shrink(mask, _mask, small.width, small.height);
  shrink(mask, _chromaMask, chromaWidth, chromaHeight);
  const int radius = std::max(1, std::max(small.width, small.height) / radiusPart);
  const int chromaRadius = std::max(1, radius / 2);
  blur(_small->mutableY(), small.width, small.height, radius, _mask.data());
  blur(_small->mutableU(), chromaWidth, chromaHeight, chromaRadius, _chromaMask.data());
  blur(_small->mutableV(), chromaWidth, chromaHeight, chromaRadius, _chromaMask.data());

  const auto large = _large->i420();
  libyuv::I420Scale(small.y, small.strideY, small.u, small.strideU, small.v, small.strideV,
                    small.width, small.height, _large->mutableY(), large.strideY,
                    _large->mutableU(), large.strideU, _large->mutableV(), large.strideV,
                    large.width, large.height, libyuv::kFilterBilinear);
  return large;
}

void BackgroundBlur::blur(std::uint8_t* plane, int width, int height, int radius,
                          const std::uint8_t* mask) {
  const auto size = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  _weighted.resize(size);
  _weights.resize(size);
  for (std::size_t i = 0; i < size; ++i) {
    _weights[i] = std::max(leastWeight, static_cast<float>(255 - mask[i]) * (1 / 255.0F));
    _weighted[i] = _weights[i] * static_cast<float>(plane[i]);
  }
  boxes(_weighted, width, height, radius, _row);
  boxes(_weights, width, height, radius, _row);
  for (std::size_t i = 0; i < size; ++i)
    plane[i] =
        static_cast<std::uint8_t>(std::clamp(_weighted[i] / _weights[i] + 0.5F, 0.0F, 255.0F));
}

}  // namespace kestrova
