#include <kestrova/platform/linux/webrtc/EngineThread.h>
#include <kestrova/platform/linux/webrtc/Feeds.h>
#include <kestrova/platform/linux/webrtc/VideoBuffers.h>

namespace kestrova {

void VideoFeed::OnFrame(const webrtc::VideoFrame& frame) {
  if (!enabled || sinks.empty()) return;
  const auto own = frameOf(frame);
  if (!own.buffer) return;
  EngineCallback delivering;
  sinks.forEach([&](VideoSink& sink) { sink.onFrame(own); });
}

void AudioFeed::OnData(const void* samples, int bits, int rate, size_t channels, size_t frames) {
  if (bits != 16) return;
  // The engine's own silence for a disabled track comes after this point of its pipeline.
  deliver(audible({static_cast<const std::int16_t*>(samples), rate, static_cast<int>(channels),
                   static_cast<int>(frames)}));
}

AudioData AudioFeed::audible(const AudioData& data) {
  if (enabled) return data;
  _silence.assign(static_cast<std::size_t>(data.channels * data.frames), 0);
  return {_silence.data(), data.sampleRate, data.channels, data.frames};
}

void AudioFeed::deliver(const AudioData& data) {
  EngineCallback delivering;
  sinks.forEach([&](AudioSink& sink) { sink.onData(data); });
}

}  // namespace kestrova
