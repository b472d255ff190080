#pragma once

#include <kestrova/platform/VideoFrame.h>
#include <kestrova/platform/linux/capture/FramePool.h>
#include <kestrova/platform/linux/capture/JpegDecoder.h>

#include <linux/videodev2.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace kestrova {

/// Whether `PictureConverter` reads pictures of this V4L2 pixel format.
bool isReadable(std::uint32_t fourcc);
/// Orders the readable formats by the work they make.
int readingCost(std::uint32_t fourcc);
/// "YUYV" of V4L2_PIX_FMT_YUYV; unprintable characters as '?'.
std::string fourccText(std::uint32_t fourcc);

/// Brings levels of full range (0..255), in place, to the limited range of `I420View`.
void limitRange(I420Buffer& picture);

/// Turns a driver's pictures into I420. One thread at a time.
class PictureConverter {
public:
  /// \param format as the driver gave it back; its pixel format is readable
  explicit PictureConverter(const v4l2_pix_format& format);
  /// Nothing for a damaged picture.
  std::shared_ptr<I420Buffer> convert(std::span<const std::uint8_t> bytes);

private:
  std::size_t neededBytes() const;

  const v4l2_pix_format _format;
  const int _stride;  // bytes of a line of the first plane
  const bool _fullRange;
  FramePool _pool;
  JpegDecoder _jpeg;
};

}  // namespace kestrova
