#pragma once

#include <kestrova/platform/Segmentation.h>

#include <memory>

namespace kestrova {

/// Finds people by the selfie network of MediaPipe, run by XNNPACK on the calling thread.
/// \throws PersonSegmentationError when its model is missing, or in a build without it
std::unique_ptr<VNImageRequestHandler> makeImageRequestHandler();

}  // namespace kestrova
