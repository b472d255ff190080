#pragma once

#include <kestrova/platform/Imaging.h>

#include <memory>

namespace kestrova {

/// Pictures of more pixels than this are refused before memory is set aside for them: 200 MB then.
inline constexpr int maxImagePixels = 50'000'000;
/// No side may be longer, in pixels: what the scaler can still work with.
inline constexpr int maxImageSide = 16'384;

/// Decodes by libpng and libturbojpeg, scales by libyuv.
std::shared_ptr<Imaging> makeImaging();

}  // namespace kestrova
