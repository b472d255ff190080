#include <kestrova/platform/linux/segmentation/MaskSmoothing.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

namespace kestrova::segmentation {
namespace {

constexpr int side = 8;

std::vector<float> all(float value) {
  return std::vector<float>(side * side, value);
}

int middle(const MaskView& mask) {
  return mask.pixels[mask.stride * (side / 2) + side / 2];
}

TEST(MaskSmoothing, noiseIsCalmedAndAPersonWhoMovesIsNot) {
  MaskSmoothing smoothing(side, side);
  const int first = middle(smoothing.take(all(0.5F)));
  int most = 0;
  for (int i = 0; i < 20; ++i) {
    const int now = middle(smoothing.take(all(i % 2 ? 0.55F : 0.45F)));
    most = std::max(most, std::abs(now - first));
  }
  MaskSmoothing alone(side, side);
  const int jump = std::abs(middle(alone.take(all(0.55F))) - first);
  EXPECT_LT(most, jump * 2 / 3);

  smoothing.take(all(1.0F));
  EXPECT_EQ(middle(smoothing.take(all(0.0F))), 0) << "gone at once";
  EXPECT_EQ(middle(smoothing.take(all(1.0F))), 255) << "there at once";
}

TEST(MaskSmoothing, aSteadyValueIsReached) {
  MaskSmoothing smoothing(side, side);
  smoothing.take(all(0.45F));
  int now = 0;
  for (int i = 0; i < 30; ++i) now = middle(smoothing.take(all(0.6F)));
  MaskSmoothing alone(side, side);
  EXPECT_NEAR(now, middle(alone.take(all(0.6F))), 1);
}

TEST(MaskSmoothing, aBorderIsSoftAndItsSidesAreClear) {
  auto halves = all(0.1F);  // the network is seldom sure to the last
  for (int y = 0; y < side; ++y)
    for (int x = side / 2; x < side; ++x) halves[static_cast<std::size_t>(y * side + x)] = 0.9F;
  MaskSmoothing smoothing(side, side);
  const auto mask = smoothing.take(halves);
  for (int y = 0; y < side; ++y) {
    const auto* row = mask.pixels + y * mask.stride;
    EXPECT_EQ(row[0], 0);
    EXPECT_EQ(row[side - 1], 255);
    EXPECT_GT(row[side / 2 - 1], 0);
    EXPECT_LT(row[side / 2], 255);
    for (int x = 1; x < side; ++x) EXPECT_LE(row[x - 1], row[x]);
  }
}

}  // namespace
}  // namespace kestrova::segmentation
