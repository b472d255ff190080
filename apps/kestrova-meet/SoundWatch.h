#pragma once

#include <kestrova/platform/VideoFrame.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>

namespace kestrova::meet {

/// Measures how loud the sound of one participant is, and its pitch. Thread-safe.
///
/// The pitch is found from the zero crossings of half a second at a time, which is exact for a tone
/// and means little for speech.
class SoundWatch final : public AudioSink {
public:
  struct Heard {
    bool heard = false;           ///< a quarter of a second of sound in all, or more
    double levelDb = silenceDb;   ///< over the last 100 ms, relative to full scale
    std::optional<double> hertz;  ///< the median of the last half minute
  };
  static constexpr double silenceDb = -90;

  /// \param onHeard called once, on a thread of the engine
  explicit SoundWatch(std::function<void()> onHeard) : _onHeard(std::move(onHeard)) {}
  void onData(const AudioData& data) override;
  Heard heard() const;

private:
  struct Crossings {
    bool armed = false;
    double first = 0;
    double last = 0;
    int count = 0;
  };
  void follow(const AudioData& data, double threshold);
  void endWindow(int sampleRate);
  void startWindow();

  const std::function<void()> _onHeard;
  mutable std::mutex _lock;  // for all below
  std::deque<double> _blockPowers;
  std::deque<double> _pitches;
  std::uint64_t _loudBlocks = 0;
  int _windowBlocks = 0;
  int _windowRate = 0;
  double _windowSamples = 0;
  double _previous = 0;
  Crossings _crossings;
};

}  // namespace kestrova::meet
