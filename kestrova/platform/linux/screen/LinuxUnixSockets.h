#pragma once

#include <kestrova/platform/UnixSockets.h>

#include <memory>

namespace kestrova {

std::shared_ptr<UnixSockets> makeUnixSockets();

}  // namespace kestrova
