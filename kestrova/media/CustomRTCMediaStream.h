#pragma once

#include <kestrova/media/EncodingTypes.h>
#include <kestrova/platform/Capture.h>
#include <kestrova/platform/Values.h>

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kestrova {

class MediaCapturer;

/// Which processing a microphone's samples go through; unset counts as off.
struct NoiseConfig {
  std::optional<bool> noiseSupression;
  std::optional<bool> echoCancellation;
  std::optional<bool> autoGainControl;
  std::optional<bool> highPassFilter;

  std::string toJsonString() const;
};

/// The engine's constraints for a noise configuration: four keys, "true" or "false". Without one
/// all four are "false".
std::map<std::string, std::string> audioConstraints(const std::optional<NoiseConfig>& config);

/// What a `CustomRTCMediaStream` is made of. Unset fields count as the stated defaults.
struct CustomStreamFields {
  std::shared_ptr<RTCVideoTrack> videoTrack;
  std::optional<bool> multiStream;  ///< unset counts as yes
  std::shared_ptr<RTCAudioTrack> audioTrack;
  std::optional<VideoCodec> videoCodec;    ///< VP8
  std::optional<BitrateMode> bitrateMode;  ///< BALANCED
  std::optional<EncodingLayer> maxLayer;   ///< MAX_LAYER_3
  std::optional<CustomAudioTrackConfig> audioEncoderConfig;
  std::optional<CustomVideoTrackConfig> encoderConfig;  ///< h720p_w1280p
  std::optional<CameraPosition> facingMode;             ///< front
  std::optional<NoiseConfig> noiseConfig;
  /// What feeds the tracks; goes with them.
  std::shared_ptr<void> capture;
  /// The camera or microphone behind the tracks, where the library opened it; goes with them.
  std::shared_ptr<MediaCapturer> capturer;
};

/// Describes a track to publish and how to publish it. Thread-safe.
class CustomRTCMediaStream {
public:
  explicit CustomRTCMediaStream(CustomStreamFields fields) : _fields(std::move(fields)) {}

  /// A copy of everything, as it is now.
  CustomStreamFields fields() const;
  std::shared_ptr<RTCVideoTrack> videoTrack() const { return fields().videoTrack; }
  std::shared_ptr<RTCAudioTrack> audioTrack() const { return fields().audioTrack; }
  std::shared_ptr<MediaCapturer> capturer() const { return fields().capturer; }
  void setVideoCodec(VideoCodec codec);
  void setMultiStream(bool multiStream);
  /// Disables and lets go of the tracks and ends their capture; the settings stay.
  void disposeTracks();

  /// For traces only.
  Dictionary toJson() const;
  std::string toJsonString(bool forAudio) const;

private:
  mutable std::mutex _lock;
  CustomStreamFields _fields;
};

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
