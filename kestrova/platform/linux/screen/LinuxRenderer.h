#pragma once

#include <kestrova/platform/ScreenSharing.h>

#include <memory>

namespace kestrova {

/// Draws JPEG by libturbojpeg, straight into the buffer, and PNG by libpng.
std::unique_ptr<PictureRenderer> makePictureRenderer();

}  // namespace kestrova
