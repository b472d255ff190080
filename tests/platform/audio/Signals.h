#pragma once

#include <kestrova/platform/WebRTC.h>

#include <modules/audio_device/include/audio_device_defines.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace kestrova {

constexpr double kToneHz = 440;
constexpr double kToneAmplitude = 8000;

/// Gives one sample after the other, at 48 kHz.
using Signal = std::function<std::int16_t()>;
Signal tone(double hz = kToneHz, double amplitude = kToneAmplitude);
Signal noise(double amplitude);
/// Noise with the colour and the rhythm of syllables.
Signal speech(double amplitude);

double levelDb(const std::vector<std::int16_t>& samples);
/// By counting how often the signal rises through zero.
double frequencyOf(const std::vector<std::int16_t>& samples);

/// The engine's side of an audio device: received audio that is a signal.
class Received final : public webrtc::AudioTransport {
public:
  explicit Received(Signal signal) : _signal(std::move(signal)) {}
  /// How long `blocks` further blocks take to be pulled, after a few that don't count; a minute
  /// when they aren't.
  std::chrono::duration<double> timeOf(int blocks);

  int32_t NeedMorePlayData(size_t frames, size_t bytes, size_t channels, uint32_t rate, void* out,
                           size_t& given, int64_t* elapsedMs, int64_t* ntpMs) override;
  int32_t RecordedDataIsAvailable(const void*, size_t, size_t, size_t, uint32_t, uint32_t, int32_t,
                                  uint32_t, bool, uint32_t&) override {
    return -1;
  }
  void PullRenderData(int, int, size_t, size_t, void*, int64_t*, int64_t*) override {}

private:
  void awaitBlocks(long count);
  Signal _signal;
  std::mutex _lock;
  std::condition_variable _changed;
  long _blocks = 0;  // under _lock
};

/// Where a microphone's samples end up.
class Heard final : public RTCAudioSource {
public:
  explicit Heard(std::map<std::string, std::string> constraints = {})
      : _constraints(std::move(constraints)) {}
  std::map<std::string, std::string> constraints() const override { return _constraints; }
  void onData(const AudioData& data) override;

  /// Set before the microphone starts; called with every block.
  std::function<void()> onBlock;

  long blocks();
  /// Skips what came so far and `skipMs` more, then gives `ms` of sound; nothing after 20 seconds.
  std::vector<std::int16_t> next(int ms, int skipMs = 0);
  /// Waits up to 10 seconds for the tone.
  bool hearsTone();

private:
  const std::map<std::string, std::string> _constraints;
  std::mutex _lock;
  std::condition_variable _changed;
  std::vector<std::int16_t> _samples;  // under _lock
};

}  // namespace kestrova
