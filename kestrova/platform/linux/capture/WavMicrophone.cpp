#include <kestrova/platform/linux/capture/Pacer.h>
#include <kestrova/platform/linux/capture/StopSignal.h>
#include <kestrova/platform/linux/capture/WavMicrophone.h>
#include <kestrova/platform/linux/capture/WavReader.h>

#include <array>
#include <utility>
#include <vector>

namespace kestrova {
namespace {

constexpr int kDeliveries = 100;  // a second
constexpr int kUsualRate = 48'000;

/// Brings sound to another rate, on straight lines between the samples.
class Resampler {
public:
  Resampler(WavReader& reader, int rate) : _reader(reader), _rate(rate) {}

  bool read(std::span<std::int16_t> samples) {
    const auto channels = static_cast<std::size_t>(_reader.channels());
    for (std::size_t i = 0; i < samples.size(); i += channels) {
      for (; _position >= _rate; _position -= _rate) {
        _before = _after;
        if (!_reader.read(std::span(_after).first(channels))) return false;
      }
      for (std::size_t channel = 0; channel < channels; ++channel) {
        const int step = _after[channel] - _before[channel];
        samples[i + channel] = static_cast<std::int16_t>(
            _before[channel] + static_cast<std::int64_t>(step) * _position / _rate);
      }
      _position += _reader.sampleRate();
    }
    return true;
  }

private:
  WavReader& _reader;
  const int _rate;
  // Two samples of the file, and how far between them we are, in parts of `_rate`.
  std::array<std::int16_t, 2> _before{};
  std::array<std::int16_t, 2> _after{};
  int _position = 2 * _rate;  // both are still to be read
};

}  // namespace

class WavMicrophone::Player {
public:
  Player(std::string path, std::shared_ptr<RTCAudioSource> source, FailureHandler failure)
      : _path(std::move(path)), _source(std::move(source)), _failure(std::move(failure)) {}

  std::string open() { return _reader.open(_path); }
  void stop() { _stop.raise(); }

  void run() {
    if (!play() && _failure) _failure(_path + " can't be read any more");
    _failure = nullptr;
    _source = nullptr;
  }

private:
  /// Until it is stopped, or false when the file can't be read.
  bool play() {
    const bool direct = _reader.sampleRate() % kDeliveries == 0;
    const int rate = direct ? _reader.sampleRate() : kUsualRate;
    const int frames = rate / kDeliveries;
    Resampler resampler(_reader, rate);
    std::vector<std::int16_t> samples(static_cast<std::size_t>(frames * _reader.channels()));
    Pacer pacer(std::chrono::nanoseconds(1'000'000'000 / kDeliveries));
    for (; !_stop.waitUntil(pacer.due()); pacer.advance()) {
      if (!(direct ? _reader.read(samples) : resampler.read(samples))) return false;
      _source->onData({samples.data(), rate, _reader.channels(), frames});
    }
    return true;
  }

  StopSignal _stop;
  const std::string _path;
  WavReader _reader;
  std::shared_ptr<RTCAudioSource> _source;
  FailureHandler _failure;
};

bool isSoundFile(const std::string& path) {
  return hasExtension(path, ".wav");
}

void WavMicrophone::onFailure(FailureHandler handler) {
  std::scoped_lock held(_lock);
  _failure = std::move(handler);
}

bool WavMicrophone::start(const std::shared_ptr<RTCAudioSource>& source) {
  if (!source) return false;
  stop();
  std::unique_lock held(_lock);
  const auto failure = _failure;
  held.unlock();
  std::string error;
  try {
    const auto player = std::make_shared<Player>(_path, source, failure);
    error = player->open();
    if (error.empty()) {
      held.lock();
      _thread = std::thread([player] { player->run(); });
      _player = player;
      return true;
    }
  } catch (const std::system_error& fault) {
    error = fault.what();
  }
  if (failure) failure(error);
  return false;
}

void WavMicrophone::stop() {
  std::shared_ptr<Player> player;
  std::thread thread;
  {
    std::scoped_lock held(_lock);
    player.swap(_player);
    thread.swap(_thread);
  }
  if (!player) return;
  player->stop();
  // From within the source, or from the failure handler.
  if (thread.get_id() == std::this_thread::get_id())
    thread.detach();
  else
    thread.join();
}

}  // namespace kestrova
