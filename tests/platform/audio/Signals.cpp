#include "Signals.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>
#include <random>

namespace kestrova {
namespace {

constexpr int kSampleRate = 48000;

std::int16_t sample(double value) {
  return static_cast<std::int16_t>(std::lround(std::clamp(value, -32768.0, 32767.0)));
}

}  // namespace

Signal tone(double hz, double amplitude) {
  return [=, n = 0L]() mutable {
    return sample(amplitude * std::sin(2 * std::numbers::pi * hz * double(n++) / kSampleRate));
  };
}

Signal noise(double amplitude) {
  return [=, engine = std::minstd_rand(7),
          spread = std::uniform_real_distribution(-1.0, 1.0)]() mutable {
    return sample(amplitude * spread(engine));
  };
}

Signal speech(double amplitude) {
  return [n = 0L, low = 0.0, breath = noise(4 * amplitude)]() mutable {
    const double time = double(n++) / kSampleRate;
    low += 0.2 * (breath() - low);
    return sample(low * std::max(0.0, std::sin(2 * std::numbers::pi * 2.7 * time)));
  };
}

double levelDb(const std::vector<std::int16_t>& samples) {
  double energy = 1e-3;
  for (const double value : samples) energy += value * value;
  return 10 * std::log10(energy / double(std::max<std::size_t>(samples.size(), 1)));
}

double frequencyOf(const std::vector<std::int16_t>& samples) {
  int rises = 0;
  for (std::size_t i = 1; i < samples.size(); ++i) rises += samples[i - 1] < 0 && samples[i] >= 0;
  return double(rises) * kSampleRate / double(std::max<std::size_t>(samples.size(), 1));
}

int32_t Received::NeedMorePlayData(size_t frames, size_t bytes, size_t channels, uint32_t rate,
                                   void* out, size_t& given, int64_t*, int64_t*) {
  EXPECT_EQ(rate, 48000u);
  EXPECT_EQ(frames, 480u);
  EXPECT_EQ(bytes, 2 * channels);
  auto* samples = static_cast<std::int16_t*>(out);
  for (std::size_t i = 0; i < frames; ++i) std::fill_n(samples + i * channels, channels, _signal());
  given = frames * channels;
  std::scoped_lock held(_lock);
  ++_blocks;
  _changed.notify_all();
  return 0;
}

void Received::awaitBlocks(long count) {
  std::unique_lock held(_lock);
  count += _blocks;
  _changed.wait_for(held, std::chrono::minutes(1), [&] { return _blocks >= count; });
}

std::chrono::duration<double> Received::timeOf(int blocks) {
  awaitBlocks(20);
  const auto begun = std::chrono::steady_clock::now();
  awaitBlocks(blocks);
  return std::chrono::steady_clock::now() - begun;
}

void Heard::onData(const AudioData& data) {
  EXPECT_EQ(data.sampleRate, kSampleRate);
  EXPECT_EQ(data.channels, 1);
  EXPECT_EQ(data.frames, 480);
  if (onBlock) onBlock();
  std::scoped_lock held(_lock);
  _samples.insert(_samples.end(), data.samples, data.samples + data.frames);
  _changed.notify_all();
}

long Heard::blocks() {
  std::scoped_lock held(_lock);
  return static_cast<long>(_samples.size() / 480);
}

std::vector<std::int16_t> Heard::next(int ms, int skipMs) {
  std::unique_lock held(_lock);
  const auto from = _samples.size() + static_cast<std::size_t>(skipMs) * 48;
  const auto to = from + static_cast<std::size_t>(ms) * 48;
  if (!_changed.wait_for(held, std::chrono::seconds(20), [&] { return _samples.size() >= to; }))
    return {};
  return {_samples.begin() + static_cast<std::ptrdiff_t>(from),
          _samples.begin() + static_cast<std::ptrdiff_t>(to)};
}

bool Heard::hearsTone() {
  for (int tries = 0; tries < 100; ++tries)
    if (std::abs(frequencyOf(next(100)) - kToneHz) < 11) return true;
  return false;
}

}  // namespace kestrova
