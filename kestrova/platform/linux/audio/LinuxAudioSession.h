#pragma once

#include <kestrova/platform/AudioSession.h>

#include <memory>

namespace kestrova {

/// The session on the sound server. The category says what the application means; the server's own
/// policy mixes and ducks by the role that the streams of a meeting bear.
std::shared_ptr<AVAudioSession> makeAudioSession();

}  // namespace kestrova
