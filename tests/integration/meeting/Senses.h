#pragma once

#include <kestrova/platform/VideoFrame.h>
#include <kestrova/platform/linux/capture/TestPicture.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <mutex>
#include <numbers>
#include <vector>

namespace kestrova::test {

/// Watches a test picture: how many came, how large, and whether the clock in it runs.
class Picture final : public VideoSink {
public:
  void onFrame(const VideoFrame& frame) override {
    const auto view = frame.buffer->i420();
    ++frames;
    width = view.width;
    const auto clock = readTestPictureClock(view);
    if (!clock) return;
    if (*clock < lastClock) ++clockWentBack;
    lastClock = *clock;
    ++clocksRead;
  }

  std::atomic<int> frames{0};
  std::atomic<int> width{0};
  std::atomic<int> clocksRead{0};
  std::atomic<int> clockWentBack{0};
  std::atomic<std::int64_t> lastClock{0};
};

/// Hears a tone: keeps the last second of the first channel and measures it.
class Sound final : public AudioSink {
public:
  void onData(const AudioData& data) override {
    std::scoped_lock held(_lock);
    _sampleRate = data.sampleRate;
    for (int i = 0; i < data.frames; ++i) _samples.push_back(data.samples[i * data.channels]);
    const auto limit = static_cast<std::size_t>(data.sampleRate);
    if (_samples.size() > limit) _samples.erase(_samples.begin(), _samples.end() - data.sampleRate);
  }

  /// The share of the sound's power that lies at `hz`: 1 for the pure tone, 0 for silence.
  double purity(double hz) const {
    std::scoped_lock held(_lock);
    if (_samples.size() < static_cast<std::size_t>(std::max(1, _sampleRate))) return 0;
    double re = 0;
    double im = 0;
    double power = 0;
    for (std::size_t i = 0; i < _samples.size(); ++i) {
      const double angle = 2 * std::numbers::pi * hz * static_cast<double>(i) / _sampleRate;
      re += _samples[i] * std::cos(angle);
      im += _samples[i] * std::sin(angle);
      power += static_cast<double>(_samples[i]) * _samples[i];
    }
    const auto count = static_cast<double>(_samples.size());
    return power < count ? 0 : 2 * (re * re + im * im) / (count * power);
  }

private:
  mutable std::mutex _lock;
  int _sampleRate = 0;
  std::vector<std::int16_t> _samples;
};

}  // namespace kestrova::test
