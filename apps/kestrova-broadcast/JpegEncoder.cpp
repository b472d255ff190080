#include "JpegEncoder.h"

#include <libyuv/scale_argb.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace kestrova::broadcast {
JpegEncoder::JpegEncoder(int quality, double scale)
    : _encoder(::tjInitCompress()), _quality(quality), _scale(scale) {
  if (!_encoder) throw std::runtime_error("pictures can't be encoded");
}

JpegEncoder::~JpegEncoder() {
  ::tjDestroy(_encoder);
}

BGRAView JpegEncoder::scaled(const BGRAView& picture) {
  if (_scale >= 1) return picture;
  const auto side = [this](int length) {
    return std::max(1, static_cast<int>(std::lround(length * _scale)));
  };
  const BGRAView small{.pixels = nullptr,
                       .stride = side(picture.width) * 4,
                       .width = side(picture.width),
                       .height = side(picture.height)};
  _scaled.resize(static_cast<std::size_t>(small.stride) * static_cast<std::size_t>(small.height));
  libyuv::ARGBScale(picture.pixels, picture.stride, picture.width, picture.height, _scaled.data(),
                    small.stride, small.width, small.height, libyuv::kFilterBox);
  return {_scaled.data(), small.stride, small.width, small.height};
}

EncodedPicture JpegEncoder::encode(BGRAView picture) {
  picture = scaled(picture);
  _encoded.resize(::tjBufSize(picture.width, picture.height, TJSAMP_420));
  auto* bytes = _encoded.data();
  unsigned long size = _encoded.size();
  if (::tjCompress2(_encoder, picture.pixels, picture.width, picture.stride, picture.height,
                    TJPF_BGRX, &bytes, &size, TJSAMP_420, _quality, TJFLAG_NOREALLOC) != 0)
    size = 0;
  return {picture.width, picture.height, std::span(_encoded).first(size)};
}

}  // namespace kestrova::broadcast
