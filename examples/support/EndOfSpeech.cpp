#include "EndOfSpeech.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace speech {
namespace {

using namespace std::chrono_literals;

constexpr int blocksASecond = 100;
// Kept of what was before and after: enough for the "h" of "hello" and the end of "yes".
constexpr auto edge = 200ms;
// No room is softer: digital silence would make the faintest noise a voice.
constexpr double quietestRoom = -60;
constexpr double silence = -96;
// Each block, of the way to the level, and in dB.
constexpr double falling = 0.1, rising = 0.02, risingUnderSpeech = 3.0 / blocksASecond;

double levelOf(const std::int16_t* samples, std::size_t count) {
  double power = 0;
  for (std::size_t i = 0; i < count; ++i) power += static_cast<double>(samples[i]) * samples[i];
  power /= static_cast<double>(count) * 32768 * 32768;
  return power > 0 ? std::max(silence, 10 * std::log10(power)) : silence;
}

std::int16_t mixed(const kestrova::AudioData& sound, int frame) {
  const auto* first = sound.samples + static_cast<std::ptrdiff_t>(frame) * sound.channels;
  int sum = 0;
  for (int channel = 0; channel < sound.channels; ++channel) sum += first[channel];
  return static_cast<std::int16_t>(sum / sound.channels);
}

}  // namespace

EndOfSpeech::EndOfSpeech(EndOfSpeechSettings settings) : _settings(settings), _room(quietestRoom) {}

Heard EndOfSpeech::take(const kestrova::AudioData& sound) {
  Heard heard;
  if (!sound.samples || sound.frames <= 0 || sound.channels <= 0 ||
      sound.sampleRate < blocksASecond)
    return heard;
  const std::scoped_lock held(_lock);
  if (_isFinished) return heard;
  if (sound.sampleRate != _rate) {
    end(heard);
    _samples.clear();
    _judged = _loudSamples = 0;
    _rate = sound.sampleRate;
  }
  for (int frame = 0; frame < sound.frames; ++frame) {
    _samples.push_back(mixed(sound, frame));
    if (_samples.size() - _judged == static_cast<std::size_t>(_rate / blocksASecond))
      judgeBlock(heard);
  }
  return heard;
}

Heard EndOfSpeech::finish() {
  Heard heard;
  const std::scoped_lock held(_lock);
  _isFinished = true;
  end(heard);
  return heard;
}

void EndOfSpeech::judgeBlock(Heard& heard) {
  const auto count = _samples.size() - _judged;
  const double level = levelOf(&_samples[_judged], count);
  _judged = _samples.size();
  // What has begun goes on at half the margin, so that soft syllables don't cut it.
  const bool isLoud = level > _room + (_isSpeaking ? _settings.margin / 2 : _settings.margin);
  learnRoom(level, isLoud);
  if (!_isSpeaking) {
    _loudSamples = isLoud ? _loudSamples + count : 0;
    if (_loudSamples < samplesIn(_settings.toBegin) || !isLoud) return forgetOld();
    begin();
    ++heard.began;
  }
  if (isLoud) _last = _judged;
  if (_judged - _last >= samplesIn(_settings.toEnd) ||
      _judged - _first >= samplesIn(_settings.longest))
    end(heard);
}

void EndOfSpeech::learnRoom(double level, bool isLoud) {
  if (level < _room)
    _room += falling * (level - _room);
  else if (isLoud)
    _room = std::min(level, _room + risingUnderSpeech);
  else
    _room += rising * (level - _room);
  _room = std::max(_room, quietestRoom);
}

void EndOfSpeech::begin() {
  const auto loudFrom = _judged - _loudSamples;
  const auto from = loudFrom - std::min(loudFrom, samplesIn(edge));
  _samples.erase(_samples.begin(), _samples.begin() + static_cast<std::ptrdiff_t>(from));
  _judged -= from;
  _first = loudFrom - from;
  _isSpeaking = true;
}

void EndOfSpeech::end(Heard& heard) {
  if (!std::exchange(_isSpeaking, false)) return;
  const auto cut = std::min(_last + samplesIn(edge), _judged);
  std::vector<std::int16_t> rest(_samples.begin() + static_cast<std::ptrdiff_t>(cut),
                                 _samples.end());
  _samples.resize(cut);
  const auto spoken = (_last - _first) * 1000 / static_cast<std::size_t>(_rate);
  heard.ended.push_back(
      {std::exchange(_samples, std::move(rest)), _rate, std::chrono::milliseconds(spoken)});
  _judged -= cut;
  _loudSamples = 0;
}

/// In large pieces, since it moves what stays.
void EndOfSpeech::forgetOld() {
  const auto kept = samplesIn(edge + _settings.toBegin);
  if (_judged < 2 * kept) return;
  _samples.erase(_samples.begin(), _samples.begin() + static_cast<std::ptrdiff_t>(_judged - kept));
  _judged = kept;
}

std::size_t EndOfSpeech::samplesIn(std::chrono::milliseconds time) const {
  return static_cast<std::size_t>(_rate * time.count() / 1000);
}

}  // namespace speech
