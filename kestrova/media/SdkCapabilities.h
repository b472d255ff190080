#pragma once

#include <kestrova/media/EncodingPresets.h>
#include <kestrova/platform/WebRTC.h>

#include <map>
#include <optional>
#include <utility>
#include <variant>
#include <vector>

namespace kestrova {

/// A row of the presets made ready for one bitrate mode. Sizes in pixels. Any field may be missing;
/// one without a height gives no encoding.
struct VideoPreset {
  std::optional<int> height;
  std::optional<int> width;
  std::optional<RTCRtpEncodingParameters> encoding;
  std::optional<AspectRatio> aspectRatio;
  std::optional<Bitrates> bitrates;
};

/// An encoding of which only the bitrate is known, in bits per second.
struct MaxBitrate {
  int maxBitrate = 0;
};

struct VideoEncodingOptions {
  /// The encoding to use without simulcast.
  std::optional<std::variant<RTCRtpEncodingParameters, MaxBitrate>> videoEncoding{};
  bool simulcast = false;
};

/// Turns a capture size and a bitrate mode into the encodings to send. Pure; no failure but an
/// empty result. Sizes in pixels.
class SdkCapabilities {
public:
  using Presets = std::map<CustomVideoTrackConfig, VideoPreset>;

  static Presets getPresets169(BitrateMode bitrateMode);
  static Presets getPresets43(BitrateMode bitrateMode);
  static std::vector<std::pair<CustomVideoTrackConfig, VideoPreset>> sortedByWidth(
      const Presets& presets);

  /// The smallest preset of the size's aspect family that is at least as wide as its longer side,
  /// or else the widest.
  static VideoPreset determineAppropriateEncoding(bool isScreenShare, int width, int height,
                                                  BitrateMode bitrateMode);
  /// The layers to send below `original`, the lower first: none, or two.
  static std::vector<VideoPreset> defaultSimulcastLayers(bool isScreenShare,
                                                         const VideoPreset& original,
                                                         BitrateMode bitrateMode);
  /// The encodings of the first three presets. A preset's position names its rid; one without a
  /// height takes its rid with it.
  static std::vector<RTCRtpEncodingParameters> encodingsFromPresets(
      int height, const std::vector<VideoPreset>& presets);
  /// With simulcast up to `maxLayer` encodings, the top one of exactly the given size; without, the
  /// one that `options` names.
  static std::vector<RTCRtpEncodingParameters> computeVideoEncodings(
      bool isScreenShare, int width, int height, const VideoEncodingOptions& options,
      BitrateMode bitrateMode, EncodingLayer maxLayer);
};

}  // namespace kestrova
