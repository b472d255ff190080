#pragma once

#include <kestrova/platform/Capture.h>

#include <memory>

namespace kestrova {

/// This machine's devices. Configured with "pattern" and "tone" it needs no device at all.
std::shared_ptr<CaptureDevices> makeCaptureDevices();

}  // namespace kestrova
