#pragma once

#include <kestrova/platform/VideoFrame.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

namespace speech {

/// What somebody said, with a moment before and after it, since the edges of words are soft.
struct Utterance {
  std::vector<std::int16_t> samples;  ///< mono
  int sampleRate = 0;
  std::chrono::milliseconds spoken{};  ///< from the first loud moment to the last
};

/// What was found in a piece of sound. Every beginning has its end, later or in the same piece.
struct Heard {
  int began = 0;
  std::vector<Utterance> ended;
};

struct EndOfSpeechSettings {
  double margin = 12;                         ///< dB by which speech is louder than the room
  std::chrono::milliseconds toBegin{60};      ///< what is shorter is a click
  std::chrono::milliseconds toEnd{600};       ///< what is shorter is a breath
  std::chrono::milliseconds longest{30'000};  ///< who goes on is given out in pieces
};

/// Finds where somebody begins and ends to speak, by how much louder it is than the room.
///
/// How loud the room is, it learns: it follows what is softer within 0.1 s, what is a little louder
/// within 0.5 s, and rises by 3 dB a second under what is taken for speech. So a fan that is turned
/// on is taken for speech for some seconds, once. Thread-safe.
class EndOfSpeech {
public:
  explicit EndOfSpeech(EndOfSpeechSettings settings = {});

  /// The next piece of sound, of any length; it is judged in blocks of 10 ms. Another sampling rate
  /// than before ends what was being said.
  Heard take(const kestrova::AudioData& sound);
  /// Nothing more comes: the end of what was being said, if something was. What is taken later, by
  /// a call that was under way, is not heard.
  Heard finish();

private:
  void judgeBlock(Heard& heard);
  void learnRoom(double level, bool isLoud);
  void begin();
  void end(Heard& heard);
  void forgetOld();
  std::size_t samplesIn(std::chrono::milliseconds time) const;

  const EndOfSpeechSettings _settings;
  std::mutex _lock;  // for all below
  int _rate = 0;
  std::vector<std::int16_t> _samples;  // places are counted in it
  std::size_t _judged = 0;             // up to here
  std::size_t _loudSamples = 0;        // in a row, before it counts as speech
  bool _isSpeaking = false;
  bool _isFinished = false;
  std::size_t _first = 0, _last = 0;  // of what is being said
  double _room;                       // dB
};

/// An `EndOfSpeech` as a sink, for one stream. \param then called when something was found, on the
/// thread of the stream's sinks or of `finish`
class Ear final : public kestrova::AudioSink {
public:
  explicit Ear(std::function<void(Heard)> then) : _then(std::move(then)) {}
  void onData(const kestrova::AudioData& sound) override { tell(_speech.take(sound)); }
  /// The stream has ended.
  void finish() { tell(_speech.finish()); }

private:
  void tell(Heard heard) const {
    if (heard.began > 0 || !heard.ended.empty()) _then(std::move(heard));
  }

  const std::function<void(Heard)> _then;
  EndOfSpeech _speech;
};

}  // namespace speech
