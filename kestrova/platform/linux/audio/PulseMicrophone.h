#pragma once

#include <kestrova/platform/Capture.h>

#include <memory>
#include <string>

namespace kestrova {

/// A microphone of the sound server. It records 48 kHz, one channel, and the samples go through the
/// processing that the source's constraints ask for.
///
/// Nothing when there is no sound server that answers within half a second, or no such source;
/// usually decided within milliseconds. Any thread. The server's answer is not kept: a server that
/// comes later is found by the next call.
///
/// `start` waits until samples flow or fail to, at most a second. `stop` and release wait for a
/// delivery in progress, unless they come from it. The first quarter of a second may be missing.
///
/// While it runs it goes over to the source that `MicrophoneRoute` says, without a gap: what was
/// recorded before is heard until the other source gives samples, and goes on if it never does.
///
/// \param sourceName a source's name, or what people are shown of it; empty for the default source,
/// which the capture follows when the user changes it
std::unique_ptr<MicrophoneCapturer> makePulseMicrophone(const std::string& sourceName = {});

}  // namespace kestrova
