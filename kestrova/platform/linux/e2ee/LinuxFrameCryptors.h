#pragma once

#include <kestrova/platform/FrameCryptor.h>

#include <memory>

namespace kestrova {

/// Cryptors for the senders and receivers of libwebrtc.
std::shared_ptr<FrameCryptors> makeFrameCryptors();

}  // namespace kestrova
