#include <kestrova/platform/WrappedBuffers.h>
#include <kestrova/platform/linux/imaging/Compositor.h>
#include <kestrova/platform/linux/imaging/LinuxImaging.h>
#include <kestrova/platform/linux/imaging/MainScreen.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace kestrova::test {
namespace {

/// A picture of one grey.
std::shared_ptr<I420Buffer> grey(int width, int height, std::uint8_t level) {
  auto buffer = std::make_shared<I420Buffer>(width, height);
  const auto view = buffer->i420();
  const auto chroma = view.strideU * ((height + 1) / 2);
  std::fill_n(buffer->mutableY(), width * height, level);
  std::fill_n(buffer->mutableU(), chroma, std::uint8_t{128});
  std::fill_n(buffer->mutableV(), chroma, std::uint8_t{128});
  return buffer;
}

/// Black on the left, white on the right.
std::shared_ptr<const Image> halves(int width, int height) {
  auto image = std::make_shared<Image>(Image{.width = width, .height = height});
  for (int i = 0; i < width * height; ++i)
    image->pixels.insert(image->pixels.end(), 4, i % width < width / 2 ? 0 : 255);
  return image;
}

int lumaAt(const VideoFrameBuffer& picture, int x, int y) {
  const auto view = picture.i420();
  return view.y[y * view.strideY + x];
}

class CompositorTest : public testing::Test {
protected:
  const std::unique_ptr<CIContext> context = makeCompositor();
  const std::uint8_t nobody[1] = {0};
  const std::uint8_t everybody[1] = {255};
  const std::uint8_t rightHalf[2] = {0, 255};
};

TEST_F(CompositorTest, theMaskDecidesWhatIsSeen) {
  for (const auto& [width, height] : {std::pair(64, 32), std::pair(33, 17), std::pair(2, 2)}) {
    SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height));
    const auto input = grey(width, height, 90);
    I420Buffer into(width, height);
    ASSERT_TRUE(context->render({*input, halves(8, 8), {everybody, 1, 1, 1}}, into));
    for (int x = 0; x < width; ++x) EXPECT_NEAR(lumaAt(into, x, height / 2), 90, 1);
    ASSERT_TRUE(context->render({*input, halves(8, 8), {nobody, 1, 1, 1}}, into));
    EXPECT_NEAR(lumaAt(into, 0, 0), 16, 1);
    EXPECT_NEAR(lumaAt(into, width - 1, height - 1), 235, 3);
  }
  const auto input = grey(64, 32, 90);
  I420Buffer into(64, 32);
  ASSERT_TRUE(context->render({*input, halves(8, 8), {rightHalf, 2, 2, 1}}, into));
  EXPECT_NEAR(lumaAt(into, 0, 16), 16, 2);
  EXPECT_NEAR(lumaAt(into, 63, 16), 90, 2);
}

TEST_F(CompositorTest, aBackgroundIsStretchedToEachSizeOfThePicture) {
  const auto tall = halves(10, 300);
  for (const auto& [width, height] : {std::pair(320, 40), std::pair(48, 200), std::pair(320, 40)}) {
    const auto input = grey(width, height, 90);
    I420Buffer into(width, height);
    ASSERT_TRUE(context->render({*input, tall, {nobody, 1, 1, 1}}, into));
    for (const int y : {0, height - 1}) {
      EXPECT_NEAR(lumaAt(into, width / 2 - width / 8, y), 16, 2) << "the aspect ratio is not kept";
      EXPECT_NEAR(lumaAt(into, width / 2 + width / 8, y), 235, 2);
    }
  }
}

TEST_F(CompositorTest, everyFormatOfPixelsIsTaken) {
  const auto planes = grey(8, 4, 90);
  const auto view = planes->i420();
  const std::vector<std::uint8_t> uv(16, 128);
  const WrappedNV12Buffer nv12({view.y, uv.data(), 8, 8, 8, 4}, {});
  const std::vector<std::uint8_t> white(8 * 4 * 4, 255);
  const WrappedBGRABuffer bgra({white.data(), 32, 8, 4});
  I420Buffer into(8, 4);
  ASSERT_TRUE(context->render({nv12, halves(2, 2), {everybody, 1, 1, 1}}, into));
  EXPECT_NEAR(lumaAt(into, 5, 2), 90, 1);
  ASSERT_TRUE(context->render({bgra, halves(2, 2), {everybody, 1, 1, 1}}, into));
  EXPECT_NEAR(lumaAt(into, 5, 2), 235, 1);
}

TEST_F(CompositorTest, aBlurredRoomHasNoShineOfThePerson) {
  // A white person before a dark wall, and a bright lamp far from them.
  constexpr int width = 640;
  constexpr int height = 360;
  const auto input = grey(width, height, 40);
  for (int y = 0; y < height; ++y) {
    std::fill_n(input->mutableY() + y * width + width / 2, width / 2, std::uint8_t{235});
    std::fill_n(input->mutableY() + y * width + 40, 4, std::uint8_t{235});
  }
  I420Buffer into(width, height);
  ASSERT_TRUE(context->render({*input, nullptr, {rightHalf, 2, 2, 1}}, into));
  EXPECT_EQ(lumaAt(into, width - 1, 100), 235) << "the person is sharp";
  EXPECT_LT(lumaAt(into, 42, 100), 120) << "the lamp is not";
  EXPECT_NEAR(lumaAt(into, width / 4 + 16, 100), 40, 4) << "nothing of the person on the wall";
}

TEST_F(CompositorTest, whatDoesNotFitIsRefused) {
  const auto input = grey(8, 4, 90);
  I420Buffer into(8, 4);
  I420Buffer other(4, 8);
  const MaskView mask{everybody, 1, 1, 1};
  EXPECT_FALSE(context->render({*input, halves(2, 2), mask}, other));
  EXPECT_FALSE(context->render({I420Buffer(0, 0), halves(2, 2), mask}, into));
  EXPECT_FALSE(context->render({*input, halves(2, 2), {}}, into));
  EXPECT_FALSE(context->render({*input, halves(2, 2), {everybody, 1, 2, 1}}, into));
  EXPECT_FALSE(context->render({*input, std::make_shared<Image>(), mask}, into));
  EXPECT_FALSE(context->render({*input, std::make_shared<Image>(Image{9, 9, {1}}), mask}, into));
  EXPECT_FALSE(context->render({WrappedNV12Buffer({}, {}), nullptr, mask}, into));
  EXPECT_FALSE(context->render({WrappedBGRABuffer({}), nullptr, mask}, into));
  EXPECT_TRUE(context->render({*input, nullptr, mask}, into));
}

// ---- Still pictures ----------------------------------------------------------------------------

TEST(StillOperations, aFrameComesThroughTurnedAndEncoded) {
  const auto imaging = makeImaging();
  auto frame = grey(6, 4, 235);
  std::fill_n(frame->mutableY(), 6, std::uint8_t{16});  // its upper edge is black
  const auto lying = imaging->render(*frame);
  ASSERT_TRUE(lying);
  EXPECT_EQ(lying->pixels[3], 255) << "opaque";
  const auto isDark = [](const Image& image, int x, int y) {
    return image.pixels[static_cast<std::size_t>(4 * (y * image.width + x))] < 60;
  };
  struct Turn {
    int degrees;
    int width;
    int height;
    int x;  // where the black edge is afterwards
    int y;
  };
  for (const auto& turn : {Turn{0, 6, 4, 2, 0}, Turn{90, 4, 6, 3, 3}, Turn{180, 6, 4, 2, 3},
                           Turn{270, 4, 6, 0, 3}, Turn{-90, 4, 6, 0, 3}}) {
    SCOPED_TRACE(turn.degrees);
    const auto turned = imaging->rotate(*lying, turn.degrees);
    ASSERT_TRUE(turned);
    EXPECT_EQ(turned->width, turn.width);
    EXPECT_EQ(turned->height, turn.height);
    EXPECT_TRUE(isDark(*turned, turn.x, turn.y));
    EXPECT_FALSE(isDark(*turned, turn.width / 2 - 1, turn.height / 2));
    const auto jpeg = imaging->encodeJpeg(*turned, 1.0);
    const auto back = jpeg ? imaging->decode(*jpeg) : std::nullopt;
    ASSERT_TRUE(back);
    for (std::size_t i = 0; i < back->pixels.size(); ++i)
      ASSERT_NEAR(back->pixels[i], turned->pixels[i], 8) << "the best quality";
  }
  EXPECT_GT(imaging->encodeJpeg(*lying, 1)->size(), imaging->encodeJpeg(*lying, 0)->size());

  EXPECT_FALSE(imaging->rotate(*lying, 45));
  EXPECT_FALSE(imaging->rotate(Image{3, 3, {}}, 90));
  EXPECT_FALSE(imaging->encodeJpeg(*lying, 1.5));
  EXPECT_FALSE(imaging->encodeJpeg(Image{}, 1));
  EXPECT_FALSE(imaging->render(I420Buffer(0, 0)));
  const std::vector<std::uint8_t> pixels(2 * 12, 7);  // rows with a gap between them
  const auto cut = imaging->render(WrappedBGRABuffer({pixels.data(), 12, 2, 2}));
  ASSERT_TRUE(cut);
  EXPECT_EQ(cut->pixels.size(), 16u);
}

TEST(MainScreen, isTheFirstThatIsConnected) {
  const auto cards =
      std::filesystem::temp_directory_path() / ("kestrova-cards-" + std::to_string(getpid()));
  const auto plug = [&](const char* name, const char* status, const char* modes) {
    std::filesystem::create_directories(cards / name);
    std::ofstream(cards / name / "status") << status << "\n";
    std::ofstream(cards / name / "modes") << modes;
  };
  EXPECT_FALSE(mainScreenSize(cards)) << "no graphics card";
  std::filesystem::create_directories(cards / "card0");
  plug("card0-HDMI-A-1", "disconnected", "");
  EXPECT_FALSE(mainScreenSize(cards));
  plug("card0-eDP-1", "connected", "2560x1600\n1920x1080\n");
  plug("card1-DP-1", "connected", "800x600\n");
  EXPECT_EQ(mainScreenSize(cards), std::pair(2560, 1600));
  plug("card0-eDP-1", "connected", "garbage");
  EXPECT_EQ(mainScreenSize(cards), std::pair(800, 600));
  std::filesystem::remove_all(cards);
}

}  // namespace
}  // namespace kestrova::test
