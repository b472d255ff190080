#include <kestrova/platform/linux/screen/LinuxRenderer.h>

#include <gtest/gtest.h>
#include <sys/resource.h>

#include "Jpegs.h"
#include <algorithm>

namespace kestrova::test {
namespace {

std::span<const std::uint8_t> bytesOf(const std::string& text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

/// Blue, green and red of one pixel, about.
void expectPixel(PixelBuffer& buffer, int x, int y, int blue, int green, int red) {
  const auto* pixel = buffer.mutablePixels() + y * buffer.stride() + x * 4;
  EXPECT_NEAR(pixel[0], blue, 6) << x << "," << y;
  EXPECT_NEAR(pixel[1], green, 6) << x << "," << y;
  EXPECT_NEAR(pixel[2], red, 6) << x << "," << y;
}

class RendererTest : public testing::Test {
protected:
  const std::unique_ptr<PictureRenderer> renderer = makePictureRenderer();
};

TEST_F(RendererTest, aPictureIsDrawnInItsOwnSizeWhateverTheBufferIs) {
  const auto jpeg = jpegOf(64, 48, 200, 100, 50);
  PixelBuffer same(64, 48);
  ASSERT_TRUE(renderer->render(bytesOf(jpeg), same));
  expectPixel(same, 0, 0, 200, 100, 50);
  expectPixel(same, 63, 47, 200, 100, 50);
  PixelBuffer larger(100, 60);
  std::fill_n(larger.mutablePixels(), 100 * 60 * 4, std::uint8_t{9});
  ASSERT_TRUE(renderer->render(bytesOf(jpeg), larger));
  expectPixel(larger, 63, 47, 200, 100, 50);
  for (const auto& [x, y] : {std::pair(64, 0), std::pair(99, 59), std::pair(0, 48)})
    expectPixel(larger, x, y, 0, 0, 0);
  PixelBuffer smaller(10, 90);
  ASSERT_TRUE(renderer->render(bytesOf(jpeg), smaller));
  expectPixel(smaller, 9, 47, 200, 100, 50);
  expectPixel(smaller, 9, 48, 0, 0, 0);
}

TEST_F(RendererTest, whatIsNoPictureIsRefused) {
  const auto jpeg = jpegOf(64, 48, 200, 100, 50);
  PixelBuffer buffer(64, 48);
  for (const auto& body :
       {std::string(), std::string("no picture"), jpeg.substr(0, jpeg.size() / 2),
        jpeg.substr(0, 3), std::string("\x89PNG\r\n\x1a\n") + "rest", withSize(jpeg, 0, 48)})
    EXPECT_FALSE(renderer->render(bytesOf(body), buffer)) << body.size();
  EXPECT_TRUE(renderer->render(bytesOf(jpeg), buffer));  // it works on
}

TEST_F(RendererTest, aBombIsRefusedBeforeItIsGivenMemory) {
  rusage before{};
  ::getrusage(RUSAGE_SELF, &before);
  PixelBuffer buffer(64, 48);
  EXPECT_FALSE(
      renderer->render(bytesOf(withSize(jpegOf(64, 48, 1, 2, 3), 30'000, 30'000)), buffer));
  rusage after{};
  ::getrusage(RUSAGE_SELF, &after);
  EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 20'000);  // kB
  PixelBufferPool pool;
  EXPECT_FALSE(pool.make(30'000, 30'000));
  EXPECT_FALSE(pool.make(16'384, 16'384));
  EXPECT_TRUE(pool.make(7680, 4320));
}

TEST_F(RendererTest, buffersComeBackToTheirPool) {
  PixelBufferPool pool;
  auto first = pool.make(32, 32);
  const auto* memory = first.get();
  EXPECT_NE(pool.make(32, 32).get(), memory);
  first.reset();
  EXPECT_EQ(pool.make(32, 32).get(), memory);
  EXPECT_EQ(pool.make(16, 16)->width(), 16);
}

}  // namespace
}  // namespace kestrova::test
