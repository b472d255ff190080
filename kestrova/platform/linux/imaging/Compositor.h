#pragma once

#include <kestrova/platform/Compositing.h>

#include <memory>

namespace kestrova {

/// Blends by libyuv.
std::unique_ptr<CIContext> makeCompositor();

}  // namespace kestrova
