#include <kestrova/platform/linux/audio/PulseRecording.h>

#include <algorithm>
#include <utility>

namespace kestrova {

PulseRecording::PulseRecording(PulseConnection& connection, const std::string& source, Take take)
    : _take(std::move(take)), _asked(source) {
  const pa_sample_spec format{PA_SAMPLE_S16NE, kSampleRate, 1};
  _stream = pa_stream_new_with_proplist(connection.context(), "Microphone", &format, nullptr,
                                        callProperties().get());
  if (!_stream) return;
  pa_stream_set_moved_callback(
      _stream, [](pa_stream*, void* self) { static_cast<PulseRecording*>(self)->_moved = true; },
      this);
  pa_stream_set_read_callback(
      _stream,
      [](pa_stream*, std::size_t, void* self) { static_cast<PulseRecording*>(self)->read(); },
      this);
  const auto unset = static_cast<std::uint32_t>(-1);
  const pa_buffer_attr buffer{unset, unset, unset, unset, sizeof(Block)};
  const auto flags = static_cast<pa_stream_flags_t>(
      PA_STREAM_ADJUST_LATENCY | PA_STREAM_INTERPOLATE_TIMING | PA_STREAM_AUTO_TIMING_UPDATE);
  // Failing, it leaves the stream failed.
  pa_stream_connect_record(_stream, source.empty() ? nullptr : source.c_str(), &buffer, flags);
}

PulseRecording::~PulseRecording() {
  if (!_stream) return;
  pa_stream_set_moved_callback(_stream, nullptr, nullptr);
  pa_stream_set_read_callback(_stream, nullptr, nullptr);
  pa_stream_disconnect(_stream);
  pa_stream_unref(_stream);
}

bool PulseRecording::isRunning() const {
  return _stream && pa_stream_get_state(_stream) == PA_STREAM_READY;
}

bool PulseRecording::hasFailed() const {
  return !_stream || !PA_STREAM_IS_GOOD(pa_stream_get_state(_stream));
}

std::string PulseRecording::source() const {
  const char* name = isRunning() ? pa_stream_get_device_name(_stream) : nullptr;
  return name ? name : "";
}

void PulseRecording::read() {
  while (isRunning() && pa_stream_readable_size(_stream) > 0) {
    const void* bytes = nullptr;
    std::size_t length = 0;
    if (pa_stream_peek(_stream, &bytes, &length) < 0 || length == 0) return;
    // A hole in the stream has a length but no bytes.
    take(static_cast<const std::int16_t*>(bytes), length / sizeof(std::int16_t));
    pa_stream_drop(_stream);
  }
}

void PulseRecording::take(const std::int16_t* samples, std::size_t count) {
  while (count > 0) {
    const auto part = std::min(count, _block.size() - _filled);
    const auto into = _block.begin() + static_cast<std::ptrdiff_t>(_filled);
    if (samples) {
      std::copy_n(samples, part, into);
      samples += part;
    } else {
      std::fill_n(into, part, std::int16_t{0});
    }
    count -= part;
    _filled += part;
    if (_filled < _block.size()) return;
    _filled = 0;
    _take(_block, delay());
  }
}

std::chrono::milliseconds PulseRecording::delay() const {
  pa_usec_t us = 0;
  int isNegative = 0;
  // Fails until the server has told for the first time; a monitor hears ahead of time.
  if (pa_stream_get_latency(_stream, &us, &isNegative) < 0 || isNegative) return {};
  return std::chrono::milliseconds(us / 1000);
}

}  // namespace kestrova
