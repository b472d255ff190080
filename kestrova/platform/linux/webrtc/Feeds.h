#pragma once

#include <kestrova/platform/VideoFrame.h>
#include <kestrova/platform/linux/webrtc/SinkList.h>

#include <api/media_stream_interface.h>
#include <api/video/video_frame.h>
#include <api/video/video_sink_interface.h>

#include <atomic>
#include <cstdint>
#include <vector>

namespace kestrova {

/// What leads from one track to the application's sinks, and whether the track is on. Delivers on
/// one thread at a time, with no lock of ours held.
struct VideoFeed final : rtc::VideoSinkInterface<webrtc::VideoFrame> {
  /// A track that is off shows black to the engine's own sinks; nobody else is meant to see it.
  void OnFrame(const webrtc::VideoFrame& frame) override;

  SinkList<VideoSink> sinks;
  std::atomic<bool> enabled{true};
  /// What the engine has been told of `enabled` so far.
  std::atomic<bool> enabledInEngine{true};
};

struct AudioFeed final : webrtc::AudioTrackSinkInterface {
  using AudioTrackSinkInterface::OnData;
  void OnData(const void* samples, int bits, int rate, size_t channels, size_t frames) override;
  /// `data`, or as much silence while the track is off. Valid until the next call.
  AudioData audible(const AudioData& data);
  void deliver(const AudioData& data);

  SinkList<AudioSink> sinks;
  std::atomic<bool> enabled{true};
  std::atomic<bool> enabledInEngine{true};

private:
  std::vector<std::int16_t> _silence;  // the delivering thread
};

}  // namespace kestrova
