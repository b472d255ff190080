#include <kestrova/platform/WrappedBuffers.h>
#include <kestrova/platform/linux/segmentation/PersonSegmentation.h>

#include <gtest/gtest.h>

#include "PersonOutline.h"
#include "Photo.h"
#include <cstdlib>
#include <filesystem>

namespace kestrova::test {
namespace {

/// What both agree is person, of what either says is.
double overlap(const MaskView& mask) {
  int both = 0;
  int either = 0;
  for (int y = 0; y < mask.height; ++y)
    for (int x = 0; x < mask.width; ++x) {
      const bool drawn = PersonOutline::contains((x + 0.5) / mask.width, (y + 0.5) / mask.height);
      const bool found = mask.pixels[y * mask.stride + x] >= 128;
      both += drawn && found;
      either += drawn || found;
    }
  return static_cast<double>(both) / either;
}

TEST(PersonMask, aPersonIsFoundAsSomebodyDrewHer) {
  for (const auto& [width, height] : {std::pair(512, 512), std::pair(640, 480), std::pair(321, 241),
                                      std::pair(1280, 720), std::pair(180, 320)}) {
    SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height));
    const auto segmentation = makeImageRequestHandler();
    const Photo photo(width, height);
    EXPECT_GE(overlap(segmentation->perform({}, *photo.i420())), 0.9);
  }
}

TEST(PersonMask, theFormatOfThePixelsDoesNotMatter) {
  const Photo photo(640, 480);
  const auto planes = photo.i420();
  const auto view = planes->i420();
  std::vector<std::uint8_t> uv(640 * 240);
  libyuv::MergeUVPlane(view.u, view.strideU, view.v, view.strideV, uv.data(), 640, 320, 240);
  const WrappedNV12Buffer nv12({view.y, uv.data(), 640, 640, 640, 480}, {});
  const WrappedBGRABuffer bgra({photo.image.pixels.data(), 640 * 4, 640, 480});
  for (const VideoFrameBuffer* picture :
       {static_cast<const VideoFrameBuffer*>(&nv12), static_cast<const VideoFrameBuffer*>(&bgra)})
    EXPECT_GE(overlap(makeImageRequestHandler()->perform({}, *picture)), 0.9);
}

TEST(PersonMask, theSamePictureGivesTheSameMaskAndAnEmptyRoomNobody) {
  const auto segmentation = makeImageRequestHandler();
  const auto picture = Photo(640, 480).i420();
  const auto first = segmentation->perform({}, *picture);
  const std::vector<std::uint8_t> before(first.pixels, first.pixels + first.stride * first.height);
  const auto second = segmentation->perform({}, *picture);
  EXPECT_TRUE(std::equal(before.begin(), before.end(), second.pixels));

  I420Buffer wall(640, 480);
  std::fill_n(wall.mutableY(), 640 * 480, std::uint8_t{120});
  std::fill_n(wall.mutableU(), 320 * 240, std::uint8_t{128});
  std::fill_n(wall.mutableV(), 320 * 240, std::uint8_t{128});
  const auto other = makeImageRequestHandler();
  const auto nobody = other->perform({}, wall);
  int found = 0;
  for (int i = 0; i < nobody.width * nobody.height; ++i) found += nobody.pixels[i] >= 128;
  EXPECT_LT(found, nobody.width * nobody.height / 50);
}

TEST(PersonMask, whatIsNoPictureIsRefused) {
  const auto segmentation = makeImageRequestHandler();
  EXPECT_THROW(segmentation->perform({}, I420Buffer(0, 0)), PersonSegmentationError);
  EXPECT_THROW(segmentation->perform({}, WrappedNV12Buffer({}, {})), PersonSegmentationError);
  EXPECT_THROW(segmentation->perform({}, WrappedBGRABuffer({})), PersonSegmentationError);
  EXPECT_THROW(segmentation->perform({.outputPixelFormat = "BGRA"}, I420Buffer(8, 8)),
               PersonSegmentationError);
}

// ---- The model ---------------------------------------------------------------------------------

class ModelPlaceTest : public testing::Test {
protected:
  ~ModelPlaceTest() override { unsetenv("KESTROVA_SEGMENTATION_MODEL"); }
  static std::string failureWith(const std::string& path) {
    setenv("KESTROVA_SEGMENTATION_MODEL", path.c_str(), 1);
    try {
      makeImageRequestHandler();
    } catch (const PersonSegmentationError& error) {
      return error.what();
    }
    return "none";
  }
};

TEST_F(ModelPlaceTest, onlyTheModelThatIsKnownIsTaken) {
  EXPECT_EQ(failureWith(KESTROVA_SEGMENTATION_MODEL_DEFAULT), "none");
  EXPECT_EQ(failureWith(""), "none") << "as if it weren't set";
  EXPECT_EQ(failureWith("/nowhere/model"), "there is no model at /nowhere/model");
  EXPECT_NE(failureWith("/").find("no model at"), std::string::npos);
  EXPECT_NE(failureWith("/dev/zero").find("no model at"), std::string::npos);

  const auto copy =
      std::filesystem::temp_directory_path() / ("kestrova-model-" + std::to_string(getpid()));
  std::filesystem::copy_file(KESTROVA_SEGMENTATION_MODEL_DEFAULT, copy);
  std::filesystem::permissions(copy, std::filesystem::perms::owner_all);
  EXPECT_EQ(failureWith(copy), "none");
  {
    std::fstream file(copy, std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(100'000);
    file.put('\x55');
  }
  EXPECT_NE(failureWith(copy).find("not the model"), std::string::npos);
  std::filesystem::resize_file(copy, 0);
  EXPECT_NE(failureWith(copy).find("can't be read"), std::string::npos);
  std::filesystem::remove(copy);
}

}  // namespace
}  // namespace kestrova::test
