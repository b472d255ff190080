#include <kestrova/platform/linux/capture/PictureConverter.h>

#include <libyuv.h>

#include <algorithm>
#include <array>

namespace kestrova {
namespace {

enum class Layout { planar, semiPlanar, packed, compressed };

struct PixelFormat {
  std::uint32_t fourcc;
  Layout layout;
};

/// What costs less comes first.
constexpr std::array kFormats{PixelFormat{V4L2_PIX_FMT_YUV420, Layout::planar},
                              PixelFormat{V4L2_PIX_FMT_NV12, Layout::semiPlanar},
                              PixelFormat{V4L2_PIX_FMT_YUYV, Layout::packed},
                              PixelFormat{V4L2_PIX_FMT_UYVY, Layout::packed},
                              PixelFormat{V4L2_PIX_FMT_MJPEG, Layout::compressed},
                              PixelFormat{V4L2_PIX_FMT_JPEG, Layout::compressed}};

auto find(std::uint32_t fourcc) {
  return std::find_if(kFormats.begin(), kFormats.end(),
                      [&](const auto& format) { return format.fourcc == fourcc; });
}

Layout layoutOf(std::uint32_t fourcc) {
  return find(fourcc)->layout;
}

int strideOf(const v4l2_pix_format& format) {
  const auto least =
      layoutOf(format.pixelformat) == Layout::packed ? (format.width + 1) / 2 * 4 : format.width;
  return static_cast<int>(std::max(format.bytesperline, least));
}

bool isFullRange(const v4l2_pix_format& format) {
  if (layoutOf(format.pixelformat) == Layout::compressed) return false;  // the decoder sees to it
  if (format.quantization == V4L2_QUANTIZATION_DEFAULT)
    return format.colorspace == V4L2_COLORSPACE_JPEG;
  return format.quantization == V4L2_QUANTIZATION_FULL_RANGE;
}

}  // namespace

bool isReadable(std::uint32_t fourcc) {
  return find(fourcc) != kFormats.end();
}

int readingCost(std::uint32_t fourcc) {
  return static_cast<int>(find(fourcc) - kFormats.begin());
}

std::string fourccText(std::uint32_t fourcc) {
  std::string text;
  for (int shift = 0; shift < 32; shift += 8) {
    const auto character = static_cast<char>(fourcc >> shift & 0xff);
    text += character >= 0x20 && character < 0x7f ? character : '?';
  }
  return text;
}

void limitRange(I420Buffer& picture) {
  const auto view = picture.i420();
  const auto luma = static_cast<std::size_t>(view.strideY) * view.height;
  const auto chroma = static_cast<std::size_t>(view.strideU) * ((view.height + 1) / 2);
  // 220 and 225 of 256ths are 219 and 224 of 255ths, rounded, for every value of a byte.
  auto* y = picture.mutableY();
  for (std::size_t i = 0; i < luma; ++i) y[i] = static_cast<std::uint8_t>(16 + (y[i] * 220 >> 8));
  for (auto* plane : {picture.mutableU(), picture.mutableV()})
    for (std::size_t i = 0; i < chroma; ++i)
      plane[i] = static_cast<std::uint8_t>(16 + (plane[i] * 225 >> 8));
}

PictureConverter::PictureConverter(const v4l2_pix_format& format)
    : _format(format),
      _stride(strideOf(format)),
      _fullRange(isFullRange(format)),
      _pool(static_cast<int>(format.width), static_cast<int>(format.height)) {}

std::size_t PictureConverter::neededBytes() const {
  const auto luma = static_cast<std::size_t>(_stride) * _format.height;
  const auto chromaLines = (_format.height + 1) / 2;
  switch (layoutOf(_format.pixelformat)) {
    case Layout::planar:
      return luma + 2 * static_cast<std::size_t>((_stride + 1) / 2) * chromaLines;
    case Layout::semiPlanar:
      return luma + static_cast<std::size_t>((_stride + 1) / 2 * 2) * chromaLines;
    default:
      return luma;
  }
}

std::shared_ptr<I420Buffer> PictureConverter::convert(std::span<const std::uint8_t> bytes) {
  if (layoutOf(_format.pixelformat) == Layout::compressed) return _jpeg.decode(bytes);
  if (bytes.size() < neededBytes()) return nullptr;
  auto picture = _pool.take();
  const auto to = picture->i420();
  auto* y = picture->mutableY();
  auto* u = picture->mutableU();
  auto* v = picture->mutableV();
  const auto* from = bytes.data();
  const auto* chroma = from + static_cast<std::size_t>(_stride) * _format.height;
  const int half = (_stride + 1) / 2;
  const auto* second = chroma + static_cast<std::size_t>(half) * ((_format.height + 1) / 2);
  int failed = -1;
  switch (_format.pixelformat) {
    case V4L2_PIX_FMT_YUV420:
      failed = libyuv::I420Copy(from, _stride, chroma, half, second, half, y, to.strideY, u,
                                to.strideU, v, to.strideV, to.width, to.height);
      break;
    case V4L2_PIX_FMT_NV12:
      failed = libyuv::NV12ToI420(from, _stride, chroma, half * 2, y, to.strideY, u, to.strideU, v,
                                  to.strideV, to.width, to.height);
      break;
    case V4L2_PIX_FMT_YUYV:
      failed = libyuv::YUY2ToI420(from, _stride, y, to.strideY, u, to.strideU, v, to.strideV,
                                  to.width, to.height);
      break;
    case V4L2_PIX_FMT_UYVY:
      failed = libyuv::UYVYToI420(from, _stride, y, to.strideY, u, to.strideU, v, to.strideV,
                                  to.width, to.height);
      break;
    default:
      break;
  }
  if (failed != 0) return nullptr;
  if (_fullRange) limitRange(*picture);
  return picture;
}

}  // namespace kestrova
