#pragma once

#include <kestrova/platform/EnumTexts.h>

#include <optional>
#include <string_view>

namespace kestrova {

/// Which of a preset's bitrates a camera uses.
enum class BitrateMode { HIGH_QUALITY, BALANCED, BANDWIDTH_OPTIMIZED };
/// How many simulcast layers a camera sends at most.
enum class EncodingLayer { MAX_LAYER_2 = 2, MAX_LAYER_3 = 3 };
enum class VideoCodec { VP8, VP9, H264, AV1 };
/// Which layers of a remote camera are received.
enum class VideoQuality { high, medium, low };

/// Size and bitrates of a camera, named by height and width.
enum class CustomVideoTrackConfig {
  h90p_w160p,
  h180p_w320p,
  h360p_w640p,
  h540p_w960p,
  h720p_w1280p,
  h1080p_w1920p,
  h120p_w160p,
  h180p_w240p,
  h240p_w320p,
  h360p_w480p,
  h480p_w640p,
  h720p_w960p,
  h1080p_w1440p
};

/// Sampling, coding and processing of a microphone.
enum class CustomAudioTrackConfig {
  speech_low_quality,
  speech_standard,
  music_standard,
  standard_stereo,
  high_quality,
  high_quality_stereo
};

/// The cases' names, to and from text.
inline constexpr EnumTexts<BitrateMode, 3> bitrateModeTexts = {
    {"HIGH_QUALITY", "BALANCED", "BANDWIDTH_OPTIMIZED"}};
inline constexpr EnumTexts<VideoCodec, 4> videoCodecTexts = {{"VP8", "VP9", "H264", "AV1"}};
inline constexpr EnumTexts<VideoQuality, 3> videoQualityTexts = {{"high", "medium", "low"}};
inline constexpr EnumTexts<CustomVideoTrackConfig, 13> customVideoTrackConfigTexts = {
    {"h90p_w160p", "h180p_w320p", "h360p_w640p", "h540p_w960p", "h720p_w1280p", "h1080p_w1920p",
     "h120p_w160p", "h180p_w240p", "h240p_w320p", "h360p_w480p", "h480p_w640p", "h720p_w960p",
     "h1080p_w1440p"}};
inline constexpr EnumTexts<CustomAudioTrackConfig, 6> customAudioTrackConfigTexts = {
    {"speech_low_quality", "speech_standard", "music_standard", "standard_stereo", "high_quality",
     "high_quality_stereo"}};

constexpr std::string_view text(BitrateMode mode) {
  return bitrateModeTexts(mode);
}
constexpr std::string_view text(VideoCodec codec) {
  return videoCodecTexts(codec);
}
constexpr std::string_view text(EncodingLayer layer) {
  return layer == EncodingLayer::MAX_LAYER_2 ? "MAX_LAYER_2" : "MAX_LAYER_3";
}
/// The number of layers.
constexpr int code(EncodingLayer layer) {
  return static_cast<int>(layer);
}
constexpr std::string_view text(VideoQuality quality) {
  return videoQualityTexts(quality);
}
constexpr std::string_view text(CustomVideoTrackConfig config) {
  return customVideoTrackConfigTexts(config);
}
constexpr std::string_view text(CustomAudioTrackConfig config) {
  return customAudioTrackConfigTexts(config);
}

/// The codec that a server names, as a MIME type or bare, in any case: "video/vp9", "H264".
std::optional<VideoCodec> videoCodecFromServer(std::string_view serverCodec);

}  // namespace kestrova
