#pragma once

#include <kestrova/platform/Imaging.h>
#include <kestrova/platform/Segmentation.h>
#include <kestrova/platform/VideoFrame.h>

#include <memory>

namespace kestrova {

/// The blend-with-mask filter: the input where the mask is 255, the background where it is 0.
struct BlendWithMask {
  const VideoFrameBuffer& inputImage;
  /// Stretched to the input's size, each axis by itself. Nothing: the input itself, blurred.
  std::shared_ptr<const Image> backgroundImage;
  /// Stretched likewise.
  MaskView maskImage;
};

/// Renders pictures, one after the other, and keeps the memory that it needs for that, the
/// stretched background included. One thread at a time.
class CIContext {
public:
  virtual ~CIContext() = default;
  /// \param into of the input's size
  /// \returns false when the pictures are none, or the sizes don't fit
  virtual bool render(const BlendWithMask& blend, I420Buffer& into) = 0;
};

}  // namespace kestrova
