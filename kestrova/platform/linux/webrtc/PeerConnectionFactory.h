#pragma once

#include <kestrova/platform/WebRTC.h>

#include <memory>

namespace kestrova {

/// The process's engine: made on first use, together with its threads, and gone once nothing made
/// by it is left. Any thread. \throws MediasoupError where it cannot be made
std::shared_ptr<RTCPeerConnectionFactory> sharedPeerConnectionFactory();

}  // namespace kestrova
