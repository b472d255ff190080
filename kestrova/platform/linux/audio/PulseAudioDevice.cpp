#include <kestrova/platform/linux/audio/PulseAudioDevice.h>

#include <api/make_ref_counted.h>

#include <algorithm>
#include <system_error>

namespace kestrova {
namespace {

constexpr int kSampleRate = 48000;
constexpr std::size_t kFrames = kSampleRate / 100;

}  // namespace

rtc::scoped_refptr<webrtc::AudioDeviceModule> PulseAudioDevice::make() {
  return rtc::make_ref_counted<PulseAudioDevice>();
}

PulseAudioDevice::~PulseAudioDevice() {
  StopPlayout();
}

int32_t PulseAudioDevice::RegisterAudioCallback(webrtc::AudioTransport* callback) {
  std::scoped_lock held(_lock);
  _callback = callback;
  return 0;
}

int32_t PulseAudioDevice::ActiveAudioLayer(AudioLayer* layer) const {
  *layer = kLinuxPulseAudio;
  return 0;
}

int32_t PulseAudioDevice::PlayoutIsAvailable(bool* available) {
  *available = true;
  return 0;
}

int32_t PulseAudioDevice::StartPlayout() {
  if (_playout) return 0;
  try {
    _playout = std::make_unique<Playout>(
        [this](std::int16_t* samples, int channels) { pull(samples, channels); });
    return 0;
  } catch (const std::system_error&) {
    return -1;  // no thread to be had
  }
}

int32_t PulseAudioDevice::StopPlayout() {
  _playout.reset();
  return 0;
}

void PulseAudioDevice::pull(std::int16_t* samples, int channels) {
  webrtc::AudioTransport* callback = nullptr;
  {
    std::scoped_lock held(_lock);
    callback = _callback;
  }
  const auto width = static_cast<std::size_t>(channels);
  std::size_t delivered = 0;
  int64_t elapsedMs = 0;
  int64_t ntpMs = 0;
  if (callback)
    callback->NeedMorePlayData(kFrames, sizeof(int16_t) * width, width, kSampleRate, samples,
                               delivered, &elapsedMs, &ntpMs);
  const auto wanted = kFrames * width;
  std::fill(samples + std::min(delivered, wanted), samples + wanted, std::int16_t{0});
}

}  // namespace kestrova
