#pragma once

#include <kestrova/platform/Mediasoup.h>

#include <memory>

namespace kestrova {

/// A device on this process's WebRTC engine, which it starts when it is loaded.
std::shared_ptr<Device> makeDevice();

}  // namespace kestrova
