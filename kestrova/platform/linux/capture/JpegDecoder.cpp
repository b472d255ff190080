#include <kestrova/platform/linux/capture/JpegDecoder.h>
#include <kestrova/platform/linux/capture/PictureConverter.h>

#include <libyuv.h>
#include <turbojpeg.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace kestrova {
namespace {

constexpr int kLargestSide = 8192;

/// Cameras pad their data; the picture is whole all the same.
bool isHarmless(std::string_view warning) {
  return warning.find("extraneous bytes") != std::string_view::npos;
}

}  // namespace

JpegDecoder::JpegDecoder() : _decompressor(::tjInitDecompress()) {}

JpegDecoder::~JpegDecoder() {
  if (_decompressor) ::tjDestroy(_decompressor);
}

std::optional<JpegDecoder::Header> JpegDecoder::header(std::span<const std::uint8_t> bytes) {
  Header header{};
  int colours = 0;
  if (!_decompressor || bytes.empty() ||
      ::tjDecompressHeader3(_decompressor, bytes.data(), bytes.size(), &header.width,
                            &header.height, &header.sampling, &colours) != 0)
    return std::nullopt;
  if (header.width < 1 || header.width > kLargestSide || header.height < 1 ||
      header.height > kLargestSide || header.sampling < 0)
    return std::nullopt;
  if (colours != TJCS_YCbCr && colours != TJCS_GRAY) return std::nullopt;
  return header;
}

std::optional<std::pair<int, int>> JpegDecoder::size(std::span<const std::uint8_t> bytes) {
  const auto found = header(bytes);
  return found ? std::optional(std::pair(found->width, found->height)) : std::nullopt;
}

std::shared_ptr<I420Buffer> JpegDecoder::decode(std::span<const std::uint8_t> bytes) {
  const auto found = header(bytes);
  if (!found) return nullptr;
  if (!_pool || _poolWidth != found->width || _poolHeight != found->height) {
    _pool = std::make_unique<FramePool>(found->width, found->height);
    _poolWidth = found->width;
    _poolHeight = found->height;
  }
  auto picture = _pool->take();
  const bool direct =
      found->sampling == TJSAMP_420 && found->width % 2 == 0 && found->height % 2 == 0;
  bool whole = false;
  if (direct) {
    const auto view = picture->i420();
    std::uint8_t* const planes[] = {picture->mutableY(), picture->mutableU(), picture->mutableV()};
    const int strides[] = {view.strideY, view.strideU, view.strideV};
    whole = decodePlanes(bytes, *found, planes, strides);
  } else {
    whole = decodeThrough(bytes, *found, *picture);
  }
  if (!whole) return nullptr;
  limitRange(*picture);
  return picture;
}

bool JpegDecoder::decodePlanes(std::span<const std::uint8_t> bytes, const Header& header,
                               std::uint8_t* const planes[3], const int strides[3]) {
  std::array<std::uint8_t*, 3> to{planes[0], planes[1], planes[2]};
  std::array<int, 3> lines{strides[0], strides[1], strides[2]};
  if (::tjDecompressToYUVPlanes(_decompressor, bytes.data(), bytes.size(), to.data(), header.width,
                                lines.data(), header.height, TJFLAG_LIMITSCANS) == 0)
    return true;
  return ::tjGetErrorCode(_decompressor) == TJERR_WARNING &&
         isHarmless(::tjGetErrorStr2(_decompressor));
}

bool JpegDecoder::decodeThrough(std::span<const std::uint8_t> bytes, const Header& header,
                                I420Buffer& picture) {
  const int planeCount = header.sampling == TJSAMP_GRAY ? 1 : 3;
  std::array<std::size_t, 3> offsets{};
  std::array<int, 3> strides{};
  std::size_t total = 0;
  for (int i = 0; i < planeCount; ++i) {
    const auto plane = static_cast<std::size_t>(i);
    strides[plane] = ::tjPlaneWidth(i, header.width, header.sampling);
    offsets[plane] = total;
    total += ::tjPlaneSizeYUV(i, header.width, 0, header.height, header.sampling);
  }
  if (_scratch.size() < total) _scratch.resize(total);
  std::array<std::uint8_t*, 3> planes{};
  for (std::size_t i = 0; i < 3; ++i) planes[i] = _scratch.data() + offsets[i];
  if (!decodePlanes(bytes, header, planes.data(), strides.data())) return false;

  const auto to = picture.i420();
  const auto convert = [&](auto* function) {
    return function(planes[0], strides[0], planes[1], strides[1], planes[2], strides[2],
                    picture.mutableY(), to.strideY, picture.mutableU(), to.strideU,
                    picture.mutableV(), to.strideV, to.width, to.height) == 0;
  };
  switch (header.sampling) {
    case TJSAMP_420:
      return convert(&libyuv::I420Copy);
    case TJSAMP_422:
      return convert(&libyuv::I422ToI420);
    case TJSAMP_444:
      return convert(&libyuv::I444ToI420);
    case TJSAMP_GRAY:
      return libyuv::I400ToI420(planes[0], strides[0], picture.mutableY(), to.strideY,
                                picture.mutableU(), to.strideU, picture.mutableV(), to.strideV,
                                to.width, to.height) == 0;
    default: {  // 4:4:0, 4:1:1: seldom enough to be scaled plane by plane
      const int chromaWidth = ::tjPlaneWidth(1, header.width, header.sampling);
      const int chromaHeight = ::tjPlaneHeight(1, header.height, header.sampling);
      libyuv::CopyPlane(planes[0], strides[0], picture.mutableY(), to.strideY, to.width, to.height);
      libyuv::ScalePlane(planes[1], strides[1], chromaWidth, chromaHeight, picture.mutableU(),
                         to.strideU, (to.width + 1) / 2, (to.height + 1) / 2, libyuv::kFilterBox);
      libyuv::ScalePlane(planes[2], strides[2], chromaWidth, chromaHeight, picture.mutableV(),
                         to.strideV, (to.width + 1) / 2, (to.height + 1) / 2, libyuv::kFilterBox);
      return true;
    }
  }
}

}  // namespace kestrova
