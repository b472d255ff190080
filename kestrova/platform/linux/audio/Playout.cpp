#include <kestrova/platform/linux/audio/Playout.h>
#include <kestrova/platform/linux/audio/PlayoutReference.h>
#include <kestrova/platform/linux/audio/Speaker.h>

#include <algorithm>
#include <array>
#include <utility>

namespace kestrova {
namespace {

constexpr int kSampleRate = 48000;
constexpr int kFrames = kSampleRate / 100;
constexpr int kSilentChannels = 2;
/// A server that restarts is back soon; one that isn't there costs next to nothing at the longest.
constexpr auto kShortestWait = std::chrono::milliseconds(250);
constexpr auto kLongestWait = std::chrono::seconds(5);

}  // namespace

Playout::Playout(Source source)
    : _source(std::move(source)), _wait(kShortestWait), _thread([this] { run(); }) {}

Playout::~Playout() {
  _stopping = true;
  _connection.wake();
  _thread.join();
}

void Playout::run() {
  while (!_stopping) {
    tend(Clock::now());
    _connection.iterate(_clock.due());
    if (Clock::now() >= _clock.due()) takeSilently();
  }
  dropConnection();
}

/// Brings what is open in line with what is wanted and what is left.
void Playout::tend(Clock::time_point now) {
  if (const auto version = speakerVersion(); version != _speakerVersion) {
    _speakerVersion = version;
    dropPlayback();
    _nextTry = now;
    _wait = kShortestWait;
    if (speaker() == "none") dropConnection();
  }
  if (_connection.context() && !_connection.isOpen()) {
    dropConnection();
    retryLater(now);
  }
  if (_playback && _playback->hasFailed()) {
    dropPlayback();
    retryLater(now);
  }
  if (_playback && _playback->isPlaying()) _wait = kShortestWait;
  if (_playback || now < _nextTry) return;
  if (!_connection.context()) {
    if (speaker() == "none")
      _nextTry = Clock::time_point::max();
    else if (!_connection.open())
      retryLater(now);
  } else if (_connection.isReady()) {
    listenForSinks();
    beginPlayback();
  }
}

void Playout::beginPlayback() {
  const auto config = speaker();
  _playback.emplace(
      _connection, config == "default" ? "" : config,
      [this](std::int16_t* samples, int channels, std::chrono::milliseconds delay) {
        _source(samples, channels);
        _clock.heardFromSink(Clock::now());
        PlayoutReference::shared().publish({samples, kSampleRate, channels, kFrames}, delay);
      });
}

/// A sink that appears is tried without waiting.
void Playout::listenForSinks() {
  if (std::exchange(_listens, true)) return;
  pa_context_set_subscribe_callback(
      _connection.context(),
      [](pa_context*, pa_subscription_event_type_t event, std::uint32_t, void* self) {
        // Changes of a sink are no reason: our own attempts make some.
        const auto about = event & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
        const auto kind = event & PA_SUBSCRIPTION_EVENT_TYPE_MASK;
        if (about == PA_SUBSCRIPTION_EVENT_SERVER || kind == PA_SUBSCRIPTION_EVENT_NEW)
          static_cast<Playout*>(self)->_nextTry = Clock::time_point::min();
      },
      this);
  const auto kinds =
      static_cast<pa_subscription_mask_t>(PA_SUBSCRIPTION_MASK_SINK | PA_SUBSCRIPTION_MASK_SERVER);
  if (auto* asked = pa_context_subscribe(_connection.context(), kinds, nullptr, nullptr))
    pa_operation_unref(asked);
}

void Playout::retryLater(Clock::time_point now) {
  _nextTry = now + _wait;
  _wait = std::min<Clock::duration>(_wait * 2, kLongestWait);
}

void Playout::dropPlayback() {
  if (!_playback) return;
  _playback.reset();
  _clock.lostSink(Clock::now());
}

void Playout::dropConnection() {
  dropPlayback();
  _connection.close();
  _listens = false;
}

void Playout::takeSilently() {
  std::array<std::int16_t, kFrames * kSilentChannels> samples;
  _source(samples.data(), kSilentChannels);
  _clock.advance(Clock::now());
}

}  // namespace kestrova
