#pragma once

#include <kestrova/media/EncodingTypes.h>

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

namespace kestrova {

enum class AspectRatio { oneSixNine, fourThree };
inline constexpr EnumTexts<AspectRatio, 2> aspectRatioTexts = {{"oneSixNine", "fourThree"}};
constexpr std::string_view text(AspectRatio ratio) {
  return aspectRatioTexts(ratio);
}

/// Bits per second, by mode.
struct Bitrates {
  int HIGH_QUALITY = 0;
  int BALANCED = 0;
  int BANDWIDTH_OPTIMIZED = 0;

  constexpr int operator[](BitrateMode mode) const {
    if (mode == BitrateMode::HIGH_QUALITY) return HIGH_QUALITY;
    return mode == BitrateMode::BALANCED ? BALANCED : BANDWIDTH_OPTIMIZED;
  }
  constexpr bool operator==(const Bitrates&) const = default;
};

struct VideoTrackPreset {
  CustomVideoTrackConfig config;
  int width;   ///< pixels
  int height;  ///< pixels
  AspectRatio aspectRatio;
  Bitrates bitrates;
  std::string_view scalabilityMode;  ///< as the W3C's webrtc-svc names it
};

struct AudioTrackPreset {
  CustomAudioTrackConfig config;
  int sampleRate;  ///< hertz
  int bitRate;     ///< kilobits per second
  int sampleSize;  ///< bits
  bool stereo;
  bool dtx;
  bool fec;
  int maxPlaybackRate;  ///< hertz
  int packetTime;       ///< milliseconds
  bool autoGainControl;
  bool echoCancellation;
  bool noiseSuppression;
  int channelCount;
};

struct SpatialTemporalLayer {
  int s = 0;
  int t = 0;
  constexpr bool operator==(const SpatialTemporalLayer&) const = default;
};

struct NamedVideoLayer {
  std::string_view name;
  SpatialTemporalLayer layer;
};

// clang-format off
namespace encoding {
using enum CustomVideoTrackConfig;
using enum CustomAudioTrackConfig;
using enum AspectRatio;

/// In the order of their cases; bitrates as HIGH_QUALITY, BALANCED, BANDWIDTH_OPTIMIZED.
inline constexpr std::array<VideoTrackPreset, 13> customVideoTrackConfigMap = {{
    {h90p_w160p, 160, 90, oneSixNine, {120000, 90000, 40000}, "L1T2"},
    {h180p_w320p, 320, 180, oneSixNine, {180000, 120000, 60000}, "L1T2"},
    {h360p_w640p, 640, 360, oneSixNine, {600000, 450000, 300000}, "L2T2_KEY"},
    {h540p_w960p, 960, 540, oneSixNine, {1200000, 900000, 600000}, "L3T2_KEY"},
    {h720p_w1280p, 1280, 720, oneSixNine, {2000000, 1500000, 1000000}, "L3T3_KEY"},
    {h1080p_w1920p, 1920, 1080, oneSixNine, {2700000, 2200000, 1500000}, "L3T3_KEY"},
    {h120p_w160p, 160, 120, fourThree, {120000, 90000, 40000}, "L1T2"},
    {h180p_w240p, 240, 180, fourThree, {180000, 120000, 90000}, "L1T2"},
    {h240p_w320p, 320, 240, fourThree, {200000, 150000, 100000}, "L1T2"},
    {h360p_w480p, 480, 360, fourThree, {540000, 360000, 270000}, "L2T2_KEY"},
    {h480p_w640p, 640, 480, fourThree, {900000, 600000, 350000}, "L2T2_KEY"},
    {h720p_w960p, 960, 720, fourThree, {1600000, 1200000, 900000}, "L3T3_KEY"},
    {h1080p_w1440p, 1440, 1080, fourThree, {2700000, 2000000, 1500000}, "L3T3_KEY"},
}};

/// In the order of their cases.
inline constexpr std::array<AudioTrackPreset, 6> customAudioTrackConfigMap = {{
    {speech_low_quality, 16000, 24, 16, false, true, true, 16000, 20, true, true, true, 1},
    {speech_standard, 32000, 24, 24, false, true, true, 32000, 30, true, true, true, 1},
    {music_standard, 48000, 40, 32, false, false, true, 48000, 40, false, false, false, 1},
    {standard_stereo, 48000, 64, 32, true, false, true, 48000, 40, false, false, false, 2},
    {high_quality, 48000, 128, 32, false, false, true, 48000, 60, false, false, false, 1},
    {high_quality_stereo, 48000, 192, 32, true, false, true, 48000, 60, false, false, false, 2},
}};
}  // namespace encoding
using encoding::customAudioTrackConfigMap;
using encoding::customVideoTrackConfigMap;

namespace encoding {
inline constexpr std::size_t layerNames = 12;
/// The named layers of one table of VIDEO_LAYERS; those that spell their layer are the same in all.
constexpr std::array<NamedVideoLayer, layerNames> videoLayers(SpatialTemporalLayer low,
                                                              SpatialTemporalLayer medium,
                                                              SpatialTemporalLayer high) {
  return {{{"low", low}, {"medium", medium}, {"high", high},
           {"s0t0", {0, 0}}, {"s0t1", {0, 1}}, {"s0t2", {0, 2}},
           {"s1t0", {1, 0}}, {"s1t1", {1, 1}}, {"s1t2", {1, 2}},
           {"s2t0", {2, 0}}, {"s2t1", {2, 1}}, {"s2t2", {2, 2}}}};
}
}  // namespace encoding

struct VideoLayerTable {
  std::string_view name;
  std::array<NamedVideoLayer, encoding::layerNames> layers;
};

/// The spatial and temporal layers to ask the server for, by table and by name.
inline constexpr std::array<VideoLayerTable, 2> VIDEO_LAYERS = {{
    {"sd", encoding::videoLayers({0, 2}, {0, 2}, {1, 2})},
    {"hd", encoding::videoLayers({0, 2}, {1, 2}, {2, 2})},
}};
// clang-format on

/// The row of a configuration.
constexpr const VideoTrackPreset& videoTrackPreset(CustomVideoTrackConfig config) {
  return customVideoTrackConfigMap.at(static_cast<std::size_t>(config));
}
constexpr const AudioTrackPreset& audioTrackPreset(CustomAudioTrackConfig config) {
  return customAudioTrackConfigMap.at(static_cast<std::size_t>(config));
}

/// The entry of VIDEO_LAYERS, such as ("hd", "medium"); nothing for an unknown name.
std::optional<SpatialTemporalLayer> videoLayer(std::string_view table, std::string_view name);

}  // namespace kestrova
