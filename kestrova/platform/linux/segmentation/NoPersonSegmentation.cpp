#include <kestrova/platform/linux/segmentation/PersonSegmentation.h>

// In place of PersonSegmentation.cpp in a build without XNNPACK.

namespace kestrova {

std::unique_ptr<VNImageRequestHandler> makeImageRequestHandler() {
  throw PersonSegmentationError("the library was built without person segmentation");
}

}  // namespace kestrova
