#pragma once

#include <kestrova/platform/VideoFrame.h>

#include <cstdint>
#include <stdexcept>
#include <string_view>

namespace kestrova {

/// One channel of 8 bits: 255 where the picture shows a person, 0 where it doesn't.
struct MaskView {
  const std::uint8_t* pixels = nullptr;
  int stride = 0;
  int width = 0;
  int height = 0;
};

/// What is asked of a segmentation.
struct VNGeneratePersonSegmentationRequest {
  enum QualityLevel { accurate, balanced, fast };
  QualityLevel qualityLevel = balanced;
  /// One component of 8 bits, the only format there is.
  std::string_view outputPixelFormat = "L008";
};

/// Why there is no mask.
struct PersonSegmentationError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Finds the people in one picture after the other, and smooths what it finds from picture to
/// picture: one for each run of pictures. One thread at a time.
class VNImageRequestHandler {
public:
  virtual ~VNImageRequestHandler() = default;
  /// The mask has a size of its own, to be stretched over the picture, and is valid until the next
  /// call. \throws PersonSegmentationError
  virtual MaskView perform(const VNGeneratePersonSegmentationRequest& request,
                           const VideoFrameBuffer& picture) = 0;
};

}  // namespace kestrova
