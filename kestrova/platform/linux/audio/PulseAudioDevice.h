#pragma once

#include <kestrova/platform/linux/audio/Playout.h>

#include <modules/audio_device/include/audio_device_default.h>

#include <cstdint>
#include <memory>
#include <mutex>

namespace kestrova {

/// The engine's audio device: plays received audio on the speaker (see Speaker.h), and takes it in
/// real time where there is none. It records nothing: microphones feed their sources themselves.
///
/// Made, used and released on the engine's own thread, as every audio device. No call waits for the
/// sound server.
class PulseAudioDevice
    : public webrtc::webrtc_impl::AudioDeviceModuleDefault<webrtc::AudioDeviceModule> {
public:
  static rtc::scoped_refptr<webrtc::AudioDeviceModule> make();

  int32_t RegisterAudioCallback(webrtc::AudioTransport* callback) override;
  int32_t ActiveAudioLayer(AudioLayer* layer) const override;
  int32_t PlayoutIsAvailable(bool* available) override;
  int16_t PlayoutDevices() override { return 1; }
  int32_t StartPlayout() override;
  int32_t StopPlayout() override;
  bool Playing() const override { return _playout != nullptr; }
  int32_t Terminate() override { return StopPlayout(); }

protected:
  PulseAudioDevice() = default;
  ~PulseAudioDevice() override;

private:
  void pull(std::int16_t* samples, int channels);

  std::mutex _lock;
  webrtc::AudioTransport* _callback = nullptr;  // under _lock
  std::unique_ptr<Playout> _playout;            // the engine's own thread
};

}  // namespace kestrova
