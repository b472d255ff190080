#include <kestrova/platform/linux/imaging/LinuxImaging.h>
#include <kestrova/platform/linux/screen/LinuxRenderer.h>

#include <turbojpeg.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <vector>

namespace kestrova {
namespace {

constexpr int rendererPixelBytes = 4;

std::string_view textOfPicture(std::span<const std::uint8_t> data) {
  return {reinterpret_cast<const char*>(data.data()), data.size()};
}

/// What the picture leaves free of the buffer becomes empty.
void clearAround(PixelBuffer& buffer, int width, int height) {
  auto* row = buffer.mutablePixels();
  const auto stride = static_cast<std::size_t>(buffer.stride());
  const auto covered =
      static_cast<std::size_t>(std::min(width, buffer.width())) * rendererPixelBytes;
  for (int y = 0; y < buffer.height(); ++y, row += stride) {
    const auto from = y < height ? covered : 0;
    if (from < stride) std::memset(row + from, 0, stride - from);
  }
}

void copyInto(PixelBuffer& buffer, const std::uint8_t* pixels, int width, int height) {
  const auto stride = static_cast<std::size_t>(width) * rendererPixelBytes;
  const auto length = std::min(stride, static_cast<std::size_t>(buffer.stride()));
  auto* to = buffer.mutablePixels();
  for (int y = 0; y < std::min(height, buffer.height()); ++y)
    std::memcpy(to + y * static_cast<std::ptrdiff_t>(buffer.stride()),
                pixels + y * static_cast<std::ptrdiff_t>(stride), length);
}

class LinuxRenderer final : public PictureRenderer {
public:
  ~LinuxRenderer() override {
    if (_reader) ::tjDestroy(_reader);
  }

  bool render(std::span<const std::uint8_t> data, PixelBuffer& buffer) override {
    constexpr std::string_view jpegStart = "\xff\xd8\xff";
    if (textOfPicture(data).starts_with(jpegStart)) {
      if (renderJpeg(data, buffer)) return true;
      // What a broken picture leaves in a decoder would spoil the next one.
      if (_reader) ::tjDestroy(_reader);
      _reader = ::tjInitDecompress();
      return false;
    }
    const auto image = _imaging->decode(textOfPicture(data));
    if (!image) return false;
    copyInto(buffer, image->pixels.data(), image->width, image->height);
    clearAround(buffer, image->width, image->height);
    return true;
  }

private:
  bool renderJpeg(std::span<const std::uint8_t> data, PixelBuffer& buffer) {
    int width = 0;
    int height = 0;
    int sampling = 0;
    int colours = 0;
    if (!_reader || ::tjDecompressHeader3(_reader, data.data(), data.size(), &width, &height,
                                          &sampling, &colours) != 0)
      return false;
    if (width < 1 || height < 1 || width > PixelBufferPool::longestSide ||
        height > PixelBufferPool::longestSide ||
        static_cast<std::int64_t>(width) * height > PixelBufferPool::mostPixels)
      return false;
    const bool fits = width <= buffer.width() && height <= buffer.height();
    std::vector<std::uint8_t> whole;
    if (!fits)
      whole.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) *
                   rendererPixelBytes);
    auto* to = fits ? buffer.mutablePixels() : whole.data();
    const int pitch = fits ? buffer.stride() : width * rendererPixelBytes;
    // What was cut short comes as a warning, with grey for what is missing.
    if (::tjDecompress2(_reader, data.data(), data.size(), to, width, pitch, height, TJPF_BGRA,
                        TJFLAG_STOPONWARNING | TJFLAG_LIMITSCANS) != 0)
      return false;
    if (!fits) copyInto(buffer, whole.data(), width, height);
    if (width < buffer.width() || height < buffer.height()) clearAround(buffer, width, height);
    return true;
  }

  tjhandle _reader = ::tjInitDecompress();
  const std::shared_ptr<Imaging> _imaging = makeImaging();
};

}  // namespace

std::unique_ptr<PictureRenderer> makePictureRenderer() {
  return std::make_unique<LinuxRenderer>();
}

}  // namespace kestrova
