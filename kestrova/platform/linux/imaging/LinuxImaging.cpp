#include <kestrova/platform/linux/imaging/LinuxImaging.h>

#include <libyuv/scale_argb.h>
#include <png.h>
#include <turbojpeg.h>

#include <cstddef>
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
};

}  // namespace

std::shared_ptr<Imaging> makeImaging() {
  return std::make_shared<LinuxImaging>();
}

}  // namespace kestrova
