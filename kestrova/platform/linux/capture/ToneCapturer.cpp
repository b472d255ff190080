#include <kestrova/platform/linux/capture/ToneCapturer.h>

#include <array>
#include <cmath>
#include <numbers>

namespace kestrova {
namespace {

constexpr int kSampleRate = 48000;
constexpr int kFrames = kSampleRate / 100;
constexpr double kAmplitude = 0.25 * 32767;

class Sine {
public:
  Sine(double hz, std::shared_ptr<RTCAudioSource> source)
      : _step(2 * std::numbers::pi * hz / kSampleRate), _source(std::move(source)) {}

  void deliver() {
    for (auto& sample : _samples) {
      sample = static_cast<std::int16_t>(std::lround(kAmplitude * std::sin(_phase)));
      _phase += _step;
    }
    _phase = std::fmod(_phase, 2 * std::numbers::pi);
    _source->onData({_samples.data(), kSampleRate, 1, kFrames});
  }

private:
  double _step;
  double _phase = 0;
  std::array<std::int16_t, kFrames> _samples{};
  std::shared_ptr<RTCAudioSource> _source;
};

}  // namespace

bool ToneCapturer::start(const std::shared_ptr<RTCAudioSource>& source) {
  if (!source || !std::isfinite(_hz) || _hz <= 0 || _hz >= kSampleRate / 2.0) return false;
  stop();
  auto sine = std::make_shared<Sine>(_hz, source);
  std::scoped_lock held(_lock);
  _thread = std::make_unique<PeriodicThread>(std::chrono::milliseconds(10),
                                             [sine](std::int64_t) { sine->deliver(); });
  return true;
}

void ToneCapturer::stop() {
  std::unique_ptr<PeriodicThread> thread;
  {
    std::scoped_lock held(_lock);
    thread = std::move(_thread);
  }
}

}  // namespace kestrova
