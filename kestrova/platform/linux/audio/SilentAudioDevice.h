#pragma once

#include <modules/audio_device/include/audio_device_default.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace kestrova {

/// The engine's audio device where nothing is to be heard or recorded: it pulls 10 ms of playout
/// every 10 ms, so that received tracks run on time, and throws the samples away. It needs no sound
/// server.
///
/// Made, used and released on the engine's worker thread, as every audio device.
class SilentAudioDevice
    : public webrtc::webrtc_impl::AudioDeviceModuleDefault<webrtc::AudioDeviceModule> {
public:
  static rtc::scoped_refptr<webrtc::AudioDeviceModule> make();

  int32_t RegisterAudioCallback(webrtc::AudioTransport* callback) override;
  int32_t ActiveAudioLayer(AudioLayer* layer) const override;
  int32_t PlayoutIsAvailable(bool* available) override;
  int16_t PlayoutDevices() override { return 1; }
  int32_t StartPlayout() override;
  int32_t StopPlayout() override;
  bool Playing() const override { return _playing; }
  int32_t Terminate() override { return StopPlayout(); }

protected:
  SilentAudioDevice() = default;
  ~SilentAudioDevice() override;

private:
  void play();

  std::mutex _lock;
  std::condition_variable _wake;
  webrtc::AudioTransport* _callback = nullptr;  // worker thread while nothing plays
  std::atomic<bool> _playing{false};
  std::thread _thread;  // worker thread
};

}  // namespace kestrova
