#pragma once

#include <kestrova/platform/linux/audio/PlayoutReference.h>
#include <kestrova/platform/linux/audio/PulseRecording.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>

namespace kestrova {

/// What a microphone's samples go through on their way to the source: echo cancellation, noise
/// suppression, gain control, high-pass filter.
class VoiceProcessing {
public:
  virtual ~VoiceProcessing() = default;
  /// Changes 10 ms that were heard `delay` ago. One thread.
  virtual void process(PulseRecording::Block& block, std::chrono::milliseconds delay) = 0;
};

/// \param constraints of the source; nothing when they ask for no processing
std::shared_ptr<VoiceProcessing> makeVoiceProcessing(
    const std::map<std::string, std::string>& constraints);

}  // namespace kestrova
