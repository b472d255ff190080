#include <kestrova/platform/linux/imaging/LinuxImaging.h>

#include <libyuv/convert_argb.h>
#include <libyuv/rotate_argb.h>
#include <libyuv/scale_argb.h>
#include <png.h>
#include <turbojpeg.h>

#include <cmath>
#include <cstddef>
#include <cstring>
#include <utility>

namespace kestrova {
namespace {

constexpr std::string_view pngSignature = "\x89PNG\r\n\x1a\n";
constexpr std::string_view jpegSignature = "\xff\xd8\xff";
constexpr int bytesPerPixel = 4;

/// An empty picture of that size, if it is one that is worked with.
std::optional<Image> blank(std::int64_t width, std::int64_t height) {
  if (width < 1 || height < 1 || width > maxImageSide || height > maxImageSide ||
      width * height > maxImagePixels)
    return std::nullopt;
  Image image{.width = static_cast<int>(width), .height = static_cast<int>(height)};
  image.pixels.resize(static_cast<std::size_t>(width * height) * bytesPerPixel);
  return image;
}

bool isWhole(const Image& image) {
  return image.width > 0 && image.height > 0 &&
         image.pixels.size() ==
             std::size_t(image.width) * std::size_t(image.height) * bytesPerPixel;
}

std::optional<Image> decodePng(std::string_view file) {
  png_image reader{};
  reader.version = PNG_IMAGE_VERSION;
  std::optional<Image> image;
  if (png_image_begin_read_from_memory(&reader, file.data(), file.size())) {
    reader.format = PNG_FORMAT_BGRA;
    image = blank(reader.width, reader.height);
    if (image && !png_image_finish_read(&reader, nullptr, image->pixels.data(), 0, nullptr))
      image.reset();
  }
  png_image_free(&reader);
  return image;
}

std::optional<Image> decodeJpeg(std::string_view file) {
  const std::unique_ptr<void, int (*)(tjhandle)> reader(tjInitDecompress(), tjDestroy);
  if (!reader) return std::nullopt;
  const auto* bytes = reinterpret_cast<const unsigned char*>(file.data());
  int width = 0;
  int height = 0;
  int subsampling = 0;
  int colours = 0;
  if (tjDecompressHeader3(reader.get(), bytes, file.size(), &width, &height, &subsampling,
                          &colours) != 0)
    return std::nullopt;
  auto image = blank(width, height);
  // A file that was cut short comes as a warning, with grey for what is missing.
  if (image && tjDecompress2(reader.get(), bytes, file.size(), image->pixels.data(), width, 0,
                             height, TJPF_BGRA, TJFLAG_STOPONWARNING | TJFLAG_LIMITSCANS) != 0)
    image.reset();
  return image;
}

std::optional<Image> fromPlanes(const I420View& from) {
  if (!isComplete(from)) return std::nullopt;
  auto image = blank(from.width, from.height);
  if (image && libyuv::I420ToARGB(from.y, from.strideY, from.u, from.strideU, from.v, from.strideV,
                                  image->pixels.data(), from.width * bytesPerPixel, from.width,
                                  from.height) != 0)
    image.reset();
  return image;
}

std::optional<Image> fromPixels(const BGRAView& from) {
  if (!isComplete(from)) return std::nullopt;
  auto image = blank(from.width, from.height);
  const auto row = std::size_t(from.width) * bytesPerPixel;
  for (int y = 0; image && y < from.height; ++y)
    std::memcpy(image->pixels.data() + std::size_t(y) * row,
                from.pixels + std::ptrdiff_t(y) * from.stride, row);
  return image;
}

class LinuxImaging final : public Imaging {
public:
  std::optional<Image> decode(std::string_view file) override {
    if (file.starts_with(pngSignature)) return decodePng(file);
    if (file.starts_with(jpegSignature)) return decodeJpeg(file);
    return std::nullopt;
  }

  std::optional<Image> resize(const Image& image, int width, int height) override {
    if (!isWhole(image)) return std::nullopt;
    auto scaled = blank(width, height);
    // To libyuv, this order of bytes is ARGB.
    if (scaled && libyuv::ARGBScale(image.pixels.data(), image.width * bytesPerPixel, image.width,
                                    image.height, scaled->pixels.data(), width * bytesPerPixel,
                                    width, height, libyuv::kFilterBox) != 0)
      scaled.reset();
    return scaled;
  }

  std::optional<Image> render(const VideoFrameBuffer& frame) override {
    return frame.format() == PixelFormat::bgra ? fromPixels(frame.bgra())
                                               : fromPlanes(frame.i420());
  }

  std::optional<Image> rotate(const Image& image, int degrees) override {
    if (!isWhole(image) || degrees % 90 != 0) return std::nullopt;
    const int clockwise = (degrees % 360 + 360) % 360;
    if (clockwise == 0) return image;
    const bool lies = clockwise != 180;
    auto turned = lies ? blank(image.height, image.width) : blank(image.width, image.height);
    if (turned &&
        libyuv::ARGBRotate(image.pixels.data(), image.width * bytesPerPixel, turned->pixels.data(),
                           turned->width * bytesPerPixel, image.width, image.height,
                           static_cast<libyuv::RotationMode>(clockwise)) != 0)
      turned.reset();
    return turned;
  }

  std::optional<std::string> encodeJpeg(const Image& image, double quality) override {
    if (!isWhole(image) || !(quality >= 0 && quality <= 1)) return std::nullopt;
    const std::unique_ptr<void, int (*)(tjhandle)> writer(tjInitCompress(), tjDestroy);
    if (!writer) return std::nullopt;
    constexpr int worst = 1;
    constexpr int best = 100;
    const int level = worst + static_cast<int>(std::lround(quality * (best - worst)));
    unsigned char* bytes = nullptr;
    unsigned long size = 0;
    const int failed =
        tjCompress2(writer.get(), image.pixels.data(), image.width, image.width * bytesPerPixel,
                    image.height, TJPF_BGRA, &bytes, &size, TJSAMP_444, level, 0);
    const std::unique_ptr<unsigned char, void (*)(unsigned char*)> held(bytes, tjFree);
    if (failed) return std::nullopt;
    return std::string(reinterpret_cast<const char*>(bytes), size);
  }
};

}  // namespace

std::shared_ptr<Imaging> makeImaging() {
  return std::make_shared<LinuxImaging>();
}

}  // namespace kestrova
