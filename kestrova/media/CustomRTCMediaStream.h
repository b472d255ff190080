#pragma once

#include <kestrova/media/EncodingTypes.h>
#include <kestrova/platform/Capture.h>
#include <kestrova/platform/ValuesFwd.h>

#include <map>
#include <memory>
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
  explicit CustomRTCMediaStream(CustomStreamFields fields);
  ~CustomRTCMediaStream();
  CustomRTCMediaStream(const CustomRTCMediaStream&) = delete;
  CustomRTCMediaStream& operator=(const CustomRTCMediaStream&) = delete;

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
  struct State;
  const std::unique_ptr<State> _state;
};

}  // namespace kestrova
