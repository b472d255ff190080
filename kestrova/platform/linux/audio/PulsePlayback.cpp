#include <kestrova/platform/linux/audio/PulsePlayback.h>

#include <algorithm>
#include <array>
#include <utility>

namespace kestrova {
namespace {

constexpr int kSampleRate = 48000;
constexpr int kFrames = kSampleRate / 100;
constexpr int kMostChannels = 2;
/// What waits in the server and the sink: less and a busy machine is heard, more and people talk
/// over each other.
constexpr int kLatencyMs = 40;

std::uint32_t bytesOf(int ms, int channels) {
  return static_cast<std::uint32_t>(kSampleRate / 1000 * ms * channels) * sizeof(std::int16_t);
}

}  // namespace

PulsePlayback::PulsePlayback(PulseConnection& connection, const std::string& sink, Pull pull)
    : _connection(connection), _sink(sink), _pull(std::move(pull)) {
  find();
}

PulsePlayback::~PulsePlayback() {
  if (_search) {
    pa_operation_cancel(_search);
    pa_operation_unref(_search);
  }
  if (_stream) {
    pa_stream_set_state_callback(_stream, nullptr, nullptr);
    pa_stream_set_write_callback(_stream, nullptr, nullptr);
    pa_stream_disconnect(_stream);
    pa_stream_unref(_stream);
  }
}

bool PulsePlayback::isPlaying() const {
  return !_failed && _stream && pa_stream_get_state(_stream) == PA_STREAM_READY;
}

void PulsePlayback::find() {
  const auto found = [](pa_context*, const pa_sink_info* info, int end, void* self) {
    auto& playback = *static_cast<PulsePlayback*>(self);
    if (!end && info && !playback._stream) playback.start(*info);
    if (end && !playback._stream) playback._failed = true;
  };
  _search = pa_context_get_sink_info_by_name(
      _connection.context(), _sink.empty() ? "@DEFAULT_SINK@" : _sink.c_str(), found, this);
  _failed = !_search;
}

void PulsePlayback::start(const pa_sink_info& sink) {
  _channels = std::min<int>(sink.sample_spec.channels, kMostChannels);
  const pa_sample_spec format{PA_SAMPLE_S16NE, kSampleRate, static_cast<std::uint8_t>(_channels)};
  _stream = pa_stream_new_with_proplist(_connection.context(), "Meeting", &format, nullptr,
                                        callProperties().get());
  if (!_stream) return;
  pa_stream_set_state_callback(
      _stream,
      [](pa_stream* stream, void* self) {
        if (!PA_STREAM_IS_GOOD(pa_stream_get_state(stream)))
          static_cast<PulsePlayback*>(self)->_failed = true;
      },
      this);
  pa_stream_set_write_callback(
      _stream,
      [](pa_stream*, std::size_t bytes, void* self) {
        static_cast<PulsePlayback*>(self)->write(bytes);
      },
      this);
  const auto unset = static_cast<std::uint32_t>(-1);
  // With a prebuffer the server waits after an underrun; without it it would ask for all the lost
  // time at once.
  const pa_buffer_attr buffer{unset, bytesOf(kLatencyMs, _channels),
                              bytesOf(kLatencyMs / 2, _channels), bytesOf(10, _channels), unset};
  const auto flags = static_cast<pa_stream_flags_t>(
      PA_STREAM_ADJUST_LATENCY | PA_STREAM_INTERPOLATE_TIMING | PA_STREAM_AUTO_TIMING_UPDATE);
  const char* device = _sink.empty() ? nullptr : _sink.c_str();
  if (pa_stream_connect_playback(_stream, device, &buffer, flags, nullptr, nullptr) < 0)
    _failed = true;
}

void PulsePlayback::write(std::size_t bytes) {
  std::array<std::int16_t, kFrames * kMostChannels> samples;
  const auto block = bytesOf(10, _channels);
  auto wait = delay();
  for (; bytes >= block; bytes -= block) {
    _pull(samples.data(), _channels, wait);
    if (pa_stream_write(_stream, samples.data(), block, nullptr, 0, PA_SEEK_RELATIVE) < 0) {
      _failed = true;
      return;
    }
    wait += std::chrono::milliseconds(10);
  }
}

std::chrono::milliseconds PulsePlayback::delay() const {
  pa_usec_t us = 0;
  int isNegative = 0;
  // Fails until the server has told for the first time.
  if (pa_stream_get_latency(_stream, &us, &isNegative) < 0 || isNegative) return {};
  return std::chrono::milliseconds(us / 1000);
}

}  // namespace kestrova
