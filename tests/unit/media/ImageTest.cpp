#include <kestrova/session/Utils.h>

#include <gtest/gtest.h>
#include <tests/support/TestPlatform.h>

namespace kestrova::test {
namespace {

/// Knows one file, a picture of a single pixel.
class OneImage final : public Imaging {
public:
  std::optional<Image> decode(std::string_view file) override {
    if (file != "a picture") return std::nullopt;
    return Image{.width = 1, .height = 1, .pixels = {1, 2, 3, 4}};
  }
  std::optional<Image> resize(const Image&, int width, int height) override {
    return Image{.width = width, .height = height};
  }
};

class ImageTest : public testing::Test {
protected:
  void know() {
    auto own = *Platform::current();
    own.imaging = std::make_shared<OneImage>();
    Platform::install(std::move(own));
  }
  void download() {
    Utils::downloadImage("https://pictures.test/a", [this](std::optional<Image> image) {
      EXPECT_TRUE(MainQueue::shared().isCurrent());
      ++calls;
      got = std::move(image);
    });
    platform.pump();
  }
  TestPlatform platform;
  int calls = 0;
  std::optional<Image> got;
};

TEST_F(ImageTest, aPictureComesOnTheMainQueueOnceItIsThere) {
  know();
  platform.session->answer("a picture", 404);
  platform.session->withhold();
  download();
  EXPECT_EQ(calls, 0);
  platform.session->release();
  platform.pump();
  EXPECT_EQ(calls, 1);
  ASSERT_TRUE(got);
  EXPECT_EQ(got->pixels.size(), 4u);
  const auto& request = platform.session->requests.back();
  EXPECT_EQ(request.method + " " + request.url, "GET https://pictures.test/a");
  EXPECT_EQ(request.timeout, std::chrono::seconds(15));
  EXPECT_TRUE(request.headers.empty());
}

TEST_F(ImageTest, whatIsNoPictureGivesNothing) {
  const std::function<void()> reasons[] = {
      [&] { platform.session->answer("a picture"); },  // but nobody to decode it
      [&] { know(), platform.session->answer("no picture"); },
      [&] { platform.session->answer(""); },
      [&] { platform.session->fail("timed out"); },
  };
  for (const auto& arrange : reasons) {
    calls = 0;
    got = Image{};
    arrange();
    download();
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(got);
  }
}

TEST_F(ImageTest, heightGoesBeforeWidth) {
  EXPECT_FALSE(Utils::resizeImage(Image{}, 3, 4));
  know();
  const auto resized = Utils::resizeImage(Image{}, 3, 4);
  ASSERT_TRUE(resized);
  EXPECT_EQ(resized->height, 3);
  EXPECT_EQ(resized->width, 4);
}

}  // namespace
}  // namespace kestrova::test
