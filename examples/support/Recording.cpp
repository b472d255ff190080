#include "Recording.h"

#include "WavFile.h"
#include "Y4mFile.h"
#include <algorithm>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

namespace recording {
namespace {

constexpr std::size_t longestFileName = 64;
/// Blocks may come this late and in a heap after a moment in which the machine was busy; only a
/// longer pause is one in which nothing was sent.
constexpr std::chrono::milliseconds pause{600};

}  // namespace

std::string fileNameOf(const std::string& name) {
  std::string out;
  for (const char c : name) {
    const bool fit = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                     c == '-' || c == '_';
    if (fit)
      out += c;
    else if (!out.empty() && out.back() != '_')
      out += '_';
    if (out.size() == longestFileName) break;
  }
  return out.empty() ? "unnamed" : out;
}

struct Recording::Timeline {
  std::filesystem::path base;
  std::function<Clock::time_point()> now;
  Clock::time_point start = now();

  std::filesystem::path file(const char* ending) const { return base.string() + ending; }
  /// How many periods of 1 / `rate` seconds have passed until `time`.
  std::uint64_t ticks(Clock::time_point time, int rate) const {
    using Microseconds = std::chrono::microseconds;
    const auto passed = std::chrono::duration_cast<Microseconds>(time - start).count();
    return static_cast<std::uint64_t>(std::max<std::int64_t>(0, passed)) *
           static_cast<std::uint64_t>(rate) / 1'000'000;
  }

  /// Runs `write` unless something went wrong before.
  template <class Write>
  void attempt(const Write& write) {
    {
      std::scoped_lock held(lock);
      if (!problem.empty()) return;
    }
    try {
      write();
    } catch (const std::exception& error) {
      std::scoped_lock held(lock);
      problem = error.what();
    }
  }
  std::mutex lock;
  std::string problem;  // under lock
};

class Recording::Pictures final : public kestrova::VideoSink {
public:
  explicit Pictures(std::shared_ptr<Timeline> timeline) : _timeline(std::move(timeline)) {}

  void onFrame(const kestrova::VideoFrame& frame) override {
    std::scoped_lock held(_lock);
    if (_finished) return;
    _timeline->attempt([&] {
      if (!_file) _file.emplace(_timeline->file(".y4m"), width, height, fps);
      _file->repeatTo(_timeline->ticks(_timeline->now(), fps));
      _file->draw(frame);
    });
  }

  void finish(Clock::time_point end) {
    std::scoped_lock held(_lock);
    if (std::exchange(_finished, true) || !_file) return;
    _timeline->attempt([&] { _file->repeatTo(_timeline->ticks(end, fps)); });
    _file.reset();
  }

private:
  const std::shared_ptr<Timeline> _timeline;
  std::mutex _lock;
  std::optional<Y4mFile> _file;
  bool _finished = false;
};

class Recording::Sound final : public kestrova::AudioSink {
public:
  explicit Sound(std::shared_ptr<Timeline> timeline) : _timeline(std::move(timeline)) {}

  void onData(const kestrova::AudioData& data) override {
    std::scoped_lock held(_lock);
    if (_finished) return;
    _timeline->attempt([&] {
      if (!_file) _file.emplace(_timeline->file(".wav"), data.sampleRate, data.channels);
      const auto due = _timeline->ticks(_timeline->now(), _file->sampleRate());
      const auto tolerance = static_cast<std::uint64_t>(_file->sampleRate()) * pause.count() / 1000;
      if (_file->length() == 0 || _file->length() + tolerance < due) _file->padTo(due);
      append(data);
    });
  }

  void finish(Clock::time_point end) {
    std::scoped_lock held(_lock);
    if (std::exchange(_finished, true) || !_file) return;
    _timeline->attempt([&] {
      _file->padTo(_timeline->ticks(end, _file->sampleRate()));
      _file->finish();
    });
    _file.reset();
  }

private:
  /// In the format of the first block, whatever the later ones come in.
  void append(const kestrova::AudioData& data) {
    const int rate = _file->sampleRate(), channels = _file->channels();
    if (data.sampleRate == rate && data.channels == channels)
      return _file->append(data.samples, static_cast<std::size_t>(data.frames));
    std::vector<std::int16_t> converted;
    for (int i = 0; i < rate / 100; ++i)
      for (int channel = 0; channel < channels; ++channel)
        converted.push_back(data.samples[sampleAt(data, i, rate, channel)]);
    _file->append(converted.data(), static_cast<std::size_t>(rate / 100));
  }

  static std::ptrdiff_t sampleAt(const kestrova::AudioData& data, int index, int rate,
                                 int channel) {
    const auto frame = static_cast<std::int64_t>(index) * data.sampleRate / rate;
    return std::min<std::ptrdiff_t>(frame, data.frames - 1) * data.channels +
           std::min(channel, data.channels - 1);
  }

  const std::shared_ptr<Timeline> _timeline;
  std::mutex _lock;
  std::optional<WavFile> _file;
  bool _finished = false;
};

Recording::Recording(std::filesystem::path folder, std::string name,
                     std::function<Clock::time_point()> now)
    : _timeline(new Timeline{.base = folder / name, .now = std::move(now)}),
      _pictures(std::make_shared<Pictures>(_timeline)),
      _sound(std::make_shared<Sound>(_timeline)) {}

Recording::~Recording() {
  finish();
}

std::shared_ptr<kestrova::VideoSink> Recording::pictures() const {
  return _pictures;
}
std::shared_ptr<kestrova::AudioSink> Recording::sound() const {
  return _sound;
}

void Recording::finish() {
  const auto end = _timeline->now();
  _pictures->finish(end);
  _sound->finish(end);
}

std::string Recording::problem() const {
  std::scoped_lock held(_timeline->lock);
  return _timeline->problem;
}

}  // namespace recording
