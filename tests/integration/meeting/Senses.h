#pragma once

#include <kestrova/platform/VideoFrame.h>
#include <kestrova/platform/linux/capture/TestPicture.h>

#include <algorithm>
#include <atomic>
#include <chrono>
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
    const auto* end = data.samples + data.frames * data.channels;
    if (std::any_of(data.samples, end, [](int sample) { return sample > 1000; })) {
      ++loudBlocks;
      lastLoud = std::chrono::steady_clock::now();
    }
    std::scoped_lock held(_lock);
    _sampleRate = data.sampleRate;
    for (int i = 0; i < data.frames; ++i) _samples.push_back(data.samples[i * data.channels]);
    const auto limit = static_cast<std::size_t>(data.sampleRate);
    if (_samples.size() > limit) _samples.erase(_samples.begin(), _samples.end() - data.sampleRate);
  }

  void forget() {
    std::scoped_lock held(_lock);
    _samples.clear();
  }

  std::atomic<int> loudBlocks{0};
  std::atomic<std::chrono::steady_clock::time_point> lastLoud{};

  /// The share of the last second's power that lies at `hz`: 1 for the pure tone, 0 for silence.
  double purity(double hz) const {
    std::scoped_lock held(_lock);
    return heardASecond() ? purity(hz, 0, _samples.size()) : 0;
  }

  /// The share of tenths of the last second in which the tone is the most of what is heard. What
  /// bridges lost packets shifts the tone's phase, which spoils its purity over the whole.
  double presence(double hz) const {
    std::scoped_lock held(_lock);
    if (!heardASecond()) return 0;
    constexpr int parts = 10;
    const auto size = _samples.size() / parts;
    int heard = 0;
    for (int part = 0; part < parts; ++part) heard += purity(hz, part * size, size) > 0.5;
    return static_cast<double>(heard) / parts;
  }

private:
  bool heardASecond() const {
    return _samples.size() >= static_cast<std::size_t>(std::max(1, _sampleRate));
  }
  double purity(double hz, std::size_t from, std::size_t size) const {
    double re = 0;
    double im = 0;
    double power = 0;
    for (std::size_t i = from; i < from + size; ++i) {
      const double angle = 2 * std::numbers::pi * hz * static_cast<double>(i) / _sampleRate;
      re += _samples[i] * std::cos(angle);
      im += _samples[i] * std::sin(angle);
      power += static_cast<double>(_samples[i]) * _samples[i];
    }
    const auto count = static_cast<double>(size);
    return power < count ? 0 : 2 * (re * re + im * im) / (count * power);
  }

  mutable std::mutex _lock;
  int _sampleRate = 0;
  std::vector<std::int16_t> _samples;
};

}  // namespace kestrova::test
