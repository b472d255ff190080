#include <kestrova/media/SdkCapabilities.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>

namespace kestrova {
namespace {

constexpr std::array<const char*, 3> ridNames = {"q", "h", "f"};
constexpr double wideRatio = 1.7777777777777777;
constexpr double squareRatio = 1.3333333333333333;
// From this height on the layers below are larger too.
constexpr int highHeight = 1080;
// The longer side from which three layers pay, and that below which one is enough.
constexpr int threeLayersSide = 960;
constexpr int twoLayersSide = 480;

RTCRtpEncodingParameters encodingWith(int maxBitrateBps) {
  RTCRtpEncodingParameters encoding;
  encoding.maxBitrateBps = maxBitrateBps;
  return encoding;
}

SdkCapabilities::Presets presetsOf(AspectRatio aspectRatio, BitrateMode bitrateMode) {
  SdkCapabilities::Presets presets;
  for (const auto& row : customVideoTrackConfigMap) {
    if (row.aspectRatio != aspectRatio) continue;
    presets[row.config] = {.height = row.height,
                           .width = row.width,
                           .encoding = encodingWith(row.bitrates[bitrateMode]),
                           .aspectRatio = row.aspectRatio,
                           .bitrates = row.bitrates};
  }
  return presets;
}

// For sizes of at least 1 by 1; a tie goes to 4:3.
AspectRatio aspectFamily(int width, int height) {
  const auto [shortSide, longSide] = std::minmax(width, height);
  const auto ratio = static_cast<double>(longSide) / shortSide;
  return std::abs(ratio - wideRatio) < std::abs(ratio - squareRatio) ? AspectRatio::oneSixNine
                                                                     : AspectRatio::fourThree;
}

std::array<CustomVideoTrackConfig, 2> lowerLayers(AspectRatio family, bool high) {
  using enum CustomVideoTrackConfig;
  if (family == AspectRatio::oneSixNine) {
    if (high) return {h360p_w640p, h540p_w960p};
    return {h180p_w320p, h360p_w640p};
  }
  if (high) return {h360p_w480p, h480p_w640p};
  return {h180p_w240p, h360p_w480p};
}

std::vector<RTCRtpEncodingParameters> singleEncoding(const VideoEncodingOptions& options) {
  if (!options.videoEncoding) return {};
  if (const auto* encoding = std::get_if<RTCRtpEncodingParameters>(&*options.videoEncoding))
    return {*encoding};
  return {encodingWith(std::get<MaxBitrate>(*options.videoEncoding).maxBitrate)};
}

}  // namespace

SdkCapabilities::Presets SdkCapabilities::getPresets169(BitrateMode bitrateMode) {
  return presetsOf(AspectRatio::oneSixNine, bitrateMode);
}

SdkCapabilities::Presets SdkCapabilities::getPresets43(BitrateMode bitrateMode) {
  return presetsOf(AspectRatio::fourThree, bitrateMode);
}

std::vector<std::pair<CustomVideoTrackConfig, VideoPreset>> SdkCapabilities::sortedByWidth(
    const Presets& presets) {
  std::vector<std::pair<CustomVideoTrackConfig, VideoPreset>> sorted(presets.begin(),
                                                                     presets.end());
  std::stable_sort(sorted.begin(), sorted.end(), [](const auto& left, const auto& right) {
    return left.second.width.value_or(0) < right.second.width.value_or(0);
  });
  return sorted;
}

VideoPreset SdkCapabilities::determineAppropriateEncoding(bool /*isScreenShare*/, int width,
                                                          int height, BitrateMode bitrateMode) {
  const auto family =
      width < 1 || height < 1 ? AspectRatio::oneSixNine : aspectFamily(width, height);
  const auto presets = sortedByWidth(presetsOf(family, bitrateMode));
  if (presets.empty()) return {};
  const auto longSide = std::max(width, height);
  for (const auto& [config, preset] : presets)
    if (preset.width.value_or(0) >= longSide) return preset;
  return presets.back().second;
}

std::vector<VideoPreset> SdkCapabilities::defaultSimulcastLayers(bool isScreenShare,
                                                                 const VideoPreset& original,
                                                                 BitrateMode bitrateMode) {
  const auto height = original.height.value_or(0);
  const auto width = original.width.value_or(0);
  if (isScreenShare || height < 1 || width < 1) return {};
  const auto family = aspectFamily(width, height);
  const auto presets = presetsOf(family, bitrateMode);
  std::vector<VideoPreset> layers;
  for (auto config : lowerLayers(family, height >= highHeight)) {
    const auto preset = presets.find(config);
    if (preset != presets.end()) layers.push_back(preset->second);
  }
  return layers;
}

std::vector<RTCRtpEncodingParameters> SdkCapabilities::encodingsFromPresets(
    int height, const std::vector<VideoPreset>& presets) {
  std::vector<RTCRtpEncodingParameters> encodings;
  for (std::size_t i = 0; i < std::min(presets.size(), ridNames.size()); ++i) {
    const auto presetHeight = presets[i].height.value_or(0);
    if (presetHeight < 1) continue;
    auto& encoding = encodings.emplace_back();
    encoding.rid = ridNames[i];
    encoding.isActive = true;
    if (!presets[i].encoding) continue;
    encoding.scaleResolutionDownBy = static_cast<double>(height) / presetHeight;
    encoding.maxBitrateBps = presets[i].encoding->maxBitrateBps;
  }
  return encodings;
}

std::vector<RTCRtpEncodingParameters> SdkCapabilities::computeVideoEncodings(
    bool isScreenShare, int width, int height, const VideoEncodingOptions& options,
    BitrateMode bitrateMode, EncodingLayer maxLayer) {
  if (!options.simulcast) return singleEncoding(options);
  auto original = determineAppropriateEncoding(isScreenShare, width, height, bitrateMode);
  original.width = width;
  original.height = height;
  if (!original.encoding) original.encoding.emplace();
  const auto layers = defaultSimulcastLayers(isScreenShare, original, bitrateMode);
  // Without lower layers an empty preset keeps their place, so that `original` keeps its rid.
  const auto first = layers.empty() ? VideoPreset{} : layers.front();
  const auto longSide = std::max(width, height);
  if (longSide >= threeLayersSide && layers.size() > 1 && maxLayer == EncodingLayer::MAX_LAYER_3)
    return encodingsFromPresets(height, {first, layers[1], original});
  if (longSide < twoLayersSide) return encodingsFromPresets(height, {original});
  return encodingsFromPresets(height, {first, original});
}

}  // namespace kestrova
