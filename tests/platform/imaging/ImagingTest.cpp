#include <kestrova/platform/linux/imaging/LinuxImaging.h>

#include <gtest/gtest.h>
#include <png.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <string>

namespace kestrova::test {
namespace {

/// A picture in which every pixel differs from its neighbours, and alpha from colour.
Image gradient(int width, int height) {
  Image image{.width = width, .height = height};
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      for (const int value : {x * 3, y * 2, x + y, 255 - x})
        image.pixels.push_back(static_cast<std::uint8_t>(value));
  return image;
}

std::string pngOf(const Image& image, png_uint_32 format = PNG_FORMAT_BGRA) {
  png_image writer{};
  writer.version = PNG_IMAGE_VERSION;
  writer.width = static_cast<png_uint_32>(image.width);
  writer.height = static_cast<png_uint_32>(image.height);
  writer.format = format;
  png_alloc_size_t size = 0;
  png_image_write_to_memory(&writer, nullptr, &size, 0, image.pixels.data(), 0, nullptr);
  std::string file(size, '\0');
  png_image_write_to_memory(&writer, file.data(), &size, 0, image.pixels.data(), 0, nullptr);
  file.resize(size);
  return file;
}

std::string jpegOf(const Image& image, int flags = 0) {
  const auto writer = tjInitCompress();
  unsigned char* bytes = nullptr;
  unsigned long size = 0;
  tjCompress2(writer, image.pixels.data(), image.width, 0, image.height, TJPF_BGRA, &bytes, &size,
              TJSAMP_444, 95, flags);
  std::string file(reinterpret_cast<char*>(bytes), size);
  tjFree(bytes);
  tjDestroy(writer);
  return file;
}

void putBigEndian(std::string& file, std::size_t at, std::uint32_t value, int bytes) {
  for (int i = 0; i < bytes; ++i)
    file[at + std::size_t(i)] = static_cast<char>(value >> (8 * (bytes - 1 - i)));
}

/// The file, claiming another size.
std::string pngClaiming(std::string file, std::uint32_t width, std::uint32_t height) {
  putBigEndian(file, 16, width, 4);
  putBigEndian(file, 20, height, 4);
  std::uint32_t crc = 0xffffffff;
  for (std::size_t i = 12; i < 29; ++i) {
    crc ^= static_cast<unsigned char>(file[i]);
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (crc & 1 ? 0xedb88320 : 0);
  }
  putBigEndian(file, 29, ~crc, 4);
  return file;
}

std::string jpegClaiming(std::string file, std::uint32_t width, std::uint32_t height) {
  const auto frame = file.find("\xff\xc0");
  putBigEndian(file, frame + 5, height, 2);
  putBigEndian(file, frame + 7, width, 2);
  return file;
}

class ImagingTest : public testing::Test {
protected:
  const std::shared_ptr<Imaging> imaging = makeImaging();
};

TEST_F(ImagingTest, picturesComeBackAsTheyWereStored) {
  const auto original = gradient(33, 17);
  const auto png = imaging->decode(pngOf(original));
  ASSERT_TRUE(png);
  EXPECT_EQ(png->width, 33);
  EXPECT_EQ(png->height, 17);
  EXPECT_EQ(png->pixels, original.pixels) << "PNG loses nothing, alpha included";

  for (const int flags : {0, TJFLAG_PROGRESSIVE}) {
    const auto jpeg = imaging->decode(jpegOf(original, flags));
    ASSERT_TRUE(jpeg);
    ASSERT_EQ(jpeg->pixels.size(), original.pixels.size());
    for (std::size_t i = 0; i < jpeg->pixels.size(); ++i) {
      const int wanted = i % 4 == 3 ? 255 : original.pixels[i];
      ASSERT_NEAR(jpeg->pixels[i], wanted, 24) << "byte " << i;
    }
  }
}

TEST_F(ImagingTest, greyPicturesHaveFourChannelsToo) {
  const Image grey{.width = 2, .height = 1, .pixels = {10, 200}};
  const auto decoded = imaging->decode(pngOf(grey, PNG_FORMAT_GRAY));
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->pixels, (std::vector<std::uint8_t>{10, 10, 10, 255, 200, 200, 200, 255}));
}

TEST_F(ImagingTest, filesThatAreCutShortOrDamagedGiveNothing) {
  const auto original = gradient(64, 64);
  for (const auto& file : {pngOf(original), jpegOf(original)}) {
    ASSERT_TRUE(imaging->decode(file));
    for (std::size_t size = 0; size + 16 < file.size(); size += 1 + file.size() / 61)
      EXPECT_FALSE(imaging->decode(file.substr(0, size))) << size << " of " << file.size();
    for (std::size_t at = 0; at < file.size(); at += 7) {
      auto damaged = file;
      damaged[at] = static_cast<char>(~damaged[at]);
      const auto decoded = imaging->decode(damaged);  // may still be a picture, if a whole one
      if (decoded) {
        EXPECT_EQ(decoded->pixels.size(),
                  std::size_t(decoded->width) * std::size_t(decoded->height) * 4);
      }
    }
  }
  for (const char* file : {"", "GIF89a", "\x89PNG\r\n\x1a\n", "\xff\xd8\xff", "<svg/>"})
    EXPECT_FALSE(imaging->decode(file));
}

TEST_F(ImagingTest, sizesThatWouldFillTheMemoryAreRefused) {
  const auto png = pngOf(gradient(8, 8));
  const auto jpeg = jpegOf(gradient(8, 8));
  ASSERT_TRUE(imaging->decode(pngClaiming(png, 8, 8))) << "the checksum is right";
  EXPECT_FALSE(imaging->decode(pngClaiming(png, 60'000, 60'000)));
  EXPECT_FALSE(imaging->decode(pngClaiming(png, 0x7fffffff, 0x7fffffff)));
  EXPECT_FALSE(imaging->decode(pngClaiming(png, 0, 8)));
  EXPECT_FALSE(imaging->decode(pngClaiming(png, 17'000, 1)));
  EXPECT_FALSE(imaging->decode(jpegClaiming(jpeg, 65'500, 65'500)));
  EXPECT_FALSE(imaging->decode(jpegClaiming(jpeg, 65'500, 1)));
}

TEST_F(ImagingTest, picturesAreRedrawnAtTheSizeAskedFor) {
  Image halves{.width = 40, .height = 20};
  for (int y = 0; y < 20; ++y)
    for (int x = 0; x < 40; ++x) halves.pixels.insert(halves.pixels.end(), 4, x < 20 ? 20 : 220);
  for (const auto& [width, height] :
       {std::pair(40, 20), std::pair(4, 2), std::pair(400, 10), std::pair(7, 301)}) {
    const auto scaled = imaging->resize(halves, width, height);
    ASSERT_TRUE(scaled) << width << "x" << height;
    EXPECT_EQ(scaled->width, width);
    EXPECT_EQ(scaled->height, height);
    ASSERT_EQ(scaled->pixels.size(), std::size_t(width) * std::size_t(height) * 4);
    EXPECT_NEAR(scaled->pixels.front(), 20, 2);
    EXPECT_NEAR(scaled->pixels.back(), 220, 2);
  }
  constexpr int most = std::numeric_limits<int>::max();
  for (const auto& [width, height] :
       {std::pair(0, 5), std::pair(5, -1), std::pair(most, most), std::pair(16'000, 16'000)})
    EXPECT_FALSE(imaging->resize(halves, width, height)) << width << "x" << height;
  halves.pixels.pop_back();
  EXPECT_FALSE(imaging->resize(halves, 4, 2)) << "fewer pixels than it says";
  EXPECT_FALSE(imaging->resize(Image{}, 4, 2));
}

}  // namespace
}  // namespace kestrova::test
