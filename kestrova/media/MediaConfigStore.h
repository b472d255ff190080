#pragma once

#include <kestrova/media/CustomRTCMediaStream.h>

#include <memory>
#include <mutex>
#include <optional>

namespace kestrova {

/// How the camera was last asked for.
struct VideoConfigSnapshot {
  CustomVideoTrackConfig encoderConfig = CustomVideoTrackConfig::h720p_w1280p;
  CameraPosition facingMode = CameraPosition::front;
  bool multiStream = true;
  VideoCodec videoCodec = VideoCodec::VP8;
  BitrateMode bitrateMode = BitrateMode::BALANCED;
  EncodingLayer maxLayer = EncodingLayer::MAX_LAYER_3;
};

/// How the microphone was last asked for.
struct AudioConfigSnapshot {
  CustomAudioTrackConfig audioEncoderConfig = CustomAudioTrackConfig::speech_standard;
  std::optional<NoiseConfig> noiseConfig;
};

/// The stream's settings with the defaults filled in; without a stream, the defaults themselves.
VideoConfigSnapshot makeVideoConfig(const std::shared_ptr<CustomRTCMediaStream>& stream,
                                    std::optional<bool> meetingMultiStream);
AudioConfigSnapshot makeAudioConfig(const std::shared_ptr<CustomRTCMediaStream>& stream);

/// Remembers the last camera and microphone configuration, so that a track can be rebuilt.
/// Thread-safe.
class MediaConfigStore {
public:
  MediaConfigStore(VideoConfigSnapshot video, AudioConfigSnapshot audio);

  VideoConfigSnapshot video() const;
  AudioConfigSnapshot audio() const;
  /// What the application asked for, before any downgrade.
  bool requestedMultiStream() const;

  /// The application asked for this.
  void recordVideo(VideoConfigSnapshot video);
  void recordFacingMode(CameraPosition position);
  void recordAudio(AudioConfigSnapshot audio);
  void recordVideoCodec(VideoCodec codec);
  void recordMultiStreamDowngrade();

private:
  mutable std::mutex _lock;
  VideoConfigSnapshot _video;
  AudioConfigSnapshot _audio;
  bool _requestedMultiStream;
};

}  // namespace kestrova
