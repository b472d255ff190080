#include <kestrova/platform/linux/audio/SilentAudioDevice.h>

#include <api/make_ref_counted.h>

#include <array>
#include <chrono>

namespace kestrova {
namespace {

constexpr int kSampleRate = 48000;
constexpr std::size_t kChannels = 2;
constexpr std::size_t kFrames = kSampleRate / 100;
constexpr auto kPeriod = std::chrono::milliseconds(10);
/// A pause longer than this (a suspended machine) is not caught up with: it would come as a burst.
constexpr auto kLongestLag = std::chrono::milliseconds(200);

}  // namespace

rtc::scoped_refptr<webrtc::AudioDeviceModule> SilentAudioDevice::make() {
  return rtc::make_ref_counted<SilentAudioDevice>();
}

SilentAudioDevice::~SilentAudioDevice() {
  StopPlayout();
}

int32_t SilentAudioDevice::RegisterAudioCallback(webrtc::AudioTransport* callback) {
  std::scoped_lock held(_lock);
  _callback = callback;
  return 0;
}

int32_t SilentAudioDevice::ActiveAudioLayer(AudioLayer* layer) const {
  *layer = kDummyAudio;
  return 0;
}

int32_t SilentAudioDevice::PlayoutIsAvailable(bool* available) {
  *available = true;
  return 0;
}

int32_t SilentAudioDevice::StartPlayout() {
  if (_playing.exchange(true)) return 0;
  _thread = std::thread([this] { play(); });
  return 0;
}

int32_t SilentAudioDevice::StopPlayout() {
  {
    std::scoped_lock held(_lock);
    _playing = false;
  }
  _wake.notify_all();
  if (_thread.joinable()) _thread.join();
  return 0;
}

void SilentAudioDevice::play() {
  std::array<int16_t, kFrames * kChannels> samples;
  auto due = std::chrono::steady_clock::now();
  for (;;) {
    webrtc::AudioTransport* callback = nullptr;
    {
      std::unique_lock held(_lock);
      if (_wake.wait_until(held, due, [this] { return !_playing; })) return;
      callback = _callback;
    }
    std::size_t delivered = 0;
    int64_t elapsedMs = 0;
    int64_t ntpMs = 0;
    if (callback)
      callback->NeedMorePlayData(kFrames, sizeof(int16_t) * kChannels, kChannels, kSampleRate,
                                 samples.data(), delivered, &elapsedMs, &ntpMs);
    due += kPeriod;
    const auto now = std::chrono::steady_clock::now();
    if (now - due > kLongestLag) due = now;
  }
}

}  // namespace kestrova
