#include "SoundWatch.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace kestrova::meet {
namespace {

constexpr double fullScale = 32768;
constexpr double loudPower = 1e-5;  // -50 dB: above the noise of any codec
constexpr int levelBlocks = 10;
constexpr int windowBlocks = 50;
constexpr std::uint64_t heardBlocks = 25;
constexpr std::size_t keptPitches = 60;

double powerOf(const AudioData& data) {
  double sum = 0;
  for (int i = 0; i < data.frames; ++i) {
    const double sample = data.samples[static_cast<std::ptrdiff_t>(i) * data.channels] / fullScale;
    sum += sample * sample;
  }
  return sum / data.frames;
}

}  // namespace

void SoundWatch::onData(const AudioData& data) {
  if (!data.samples || data.frames <= 0 || data.channels <= 0 || data.sampleRate <= 0) return;
  const double power = powerOf(data);
  bool nowHeard = false;
  {
    const std::scoped_lock held(_lock);
    _blockPowers.push_back(power);
    if (_blockPowers.size() > levelBlocks) _blockPowers.pop_front();
    if (data.sampleRate != _windowRate) startWindow();
    _windowRate = data.sampleRate;
    if (power < loudPower) {
      startWindow();  // a pause would be taken for a lower pitch
    } else {
      nowHeard = ++_loudBlocks == heardBlocks;
      follow(data, std::sqrt(power) / 4);
      if (++_windowBlocks == windowBlocks) endWindow(data.sampleRate);
    }
  }
  if (nowHeard && _onHeard) _onHeard();
}

/// Counts upward crossings; a dip below `-threshold` must lie between two of them.
void SoundWatch::follow(const AudioData& data, double threshold) {
  for (int i = 0; i < data.frames; ++i) {
    const double sample = data.samples[static_cast<std::ptrdiff_t>(i) * data.channels] / fullScale;
    if (sample < -threshold) _crossings.armed = true;
    if (_crossings.armed && _previous < 0 && sample >= 0) {
      const double at = _windowSamples - sample / (sample - _previous);
      if (_crossings.count++ == 0) _crossings.first = at;
      _crossings.last = at;
      _crossings.armed = false;
    }
    _previous = sample;
    ++_windowSamples;
  }
}

void SoundWatch::endWindow(int sampleRate) {
  const double samples = _crossings.last - _crossings.first;
  if (_crossings.count > 2 && samples > 0) {
    _pitches.push_back((_crossings.count - 1) * sampleRate / samples);
    if (_pitches.size() > keptPitches) _pitches.pop_front();
  }
  startWindow();
}

void SoundWatch::startWindow() {
  _windowBlocks = 0;
  _windowSamples = 0;
  _crossings = {};
}

SoundWatch::Heard SoundWatch::heard() const {
  const std::scoped_lock held(_lock);
  Heard heard{.heard = _loudBlocks >= heardBlocks};
  double power = 0;
  for (const double block : _blockPowers) power += block;
  if (!_blockPowers.empty()) power /= static_cast<double>(_blockPowers.size());
  if (power > 0) heard.levelDb = std::max(silenceDb, 10 * std::log10(power));
  if (!_pitches.empty()) {
    std::vector<double> sorted(_pitches.begin(), _pitches.end());
    const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2);
    std::nth_element(sorted.begin(), middle, sorted.end());
    heard.hertz = *middle;
  }
  return heard;
}

}  // namespace kestrova::meet
