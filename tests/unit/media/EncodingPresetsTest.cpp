#include <kestrova/media/SdkCapabilities.h>
#include <kestrova/media/VideoCodecCapabilityResolver.h>

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace kestrova {
namespace {

using enum BitrateMode;
using enum EncodingLayer;

/// The layers as "rid/scale bitrate", the lowest first.
std::string simulcast(int width, int height, BitrateMode mode, EncodingLayer maxLayer,
                      bool isScreenShare = false) {
  std::ostringstream layers;
  for (const auto& encoding : SdkCapabilities::computeVideoEncodings(
           isScreenShare, width, height, {.simulcast = true}, mode, maxLayer)) {
    EXPECT_TRUE(encoding.isActive);
    layers << encoding.rid << '/' << encoding.scaleResolutionDownBy.value_or(-1) << ' '
           << encoding.maxBitrateBps.value_or(-1) << ' ';
  }
  return layers.str();
}

TEST(EncodingPresetsTest, computesSimulcastLayers) {
  const struct {
    int width, height;
    BitrateMode mode;
    EncodingLayer maxLayer;
    const char* layers;
  } rows[] = {
      {1280, 720, BALANCED, MAX_LAYER_3, "q/4 120000 h/2 450000 f/1 1500000 "},
      {1280, 720, BALANCED, MAX_LAYER_2, "q/4 120000 h/1 1500000 "},
      {640, 360, HIGH_QUALITY, MAX_LAYER_2, "q/2 180000 h/1 600000 "},
      {479, 269, BALANCED, MAX_LAYER_3, "q/1 450000 "},
      {480, 270, BALANCED, MAX_LAYER_3, "q/1.5 120000 h/1 450000 "},
      {959, 540, BALANCED, MAX_LAYER_3, "q/3 120000 h/1 900000 "},
      {1920, 1080, BANDWIDTH_OPTIMIZED, MAX_LAYER_3, "q/3 300000 h/2 600000 f/1 1500000 "},
      {720, 1280, BALANCED, MAX_LAYER_3, "q/3.55556 450000 h/2.37037 900000 f/1 1500000 "},
      {3840, 2160, HIGH_QUALITY, MAX_LAYER_2, "q/6 600000 h/1 2700000 "},
      {1436, 1079, BALANCED, MAX_LAYER_2, "q/5.99444 120000 h/1 2000000 "},
      {1440, 1080, BALANCED, MAX_LAYER_3, "q/3 360000 h/2.25 600000 f/1 2000000 "},
      {1, 1, BALANCED, MAX_LAYER_3, "q/1 90000 "},
      {0, 0, BALANCED, MAX_LAYER_3, ""},
      {-5, 1000, BALANCED, MAX_LAYER_3, "h/1 1500000 "},
  };
  for (const auto& row : rows)
    EXPECT_EQ(simulcast(row.width, row.height, row.mode, row.maxLayer), row.layers)
        << row.width << "x" << row.height;
  // A shared screen has no lower layers, and the top one keeps the rid of its place.
  EXPECT_EQ(simulcast(1280, 720, BALANCED, MAX_LAYER_3, true), "h/1 1500000 ");
}

TEST(EncodingPresetsTest, takesTheGivenEncodingWithoutSimulcast) {
  auto compute = [](const VideoEncodingOptions& options) {
    return SdkCapabilities::computeVideoEncodings(false, 1280, 720, options, BALANCED, MAX_LAYER_3);
  };
  EXPECT_TRUE(compute({}).empty());
  RTCRtpEncodingParameters given;
  given.rid = "own";
  const auto own = compute({.videoEncoding = given});
  ASSERT_EQ(own.size(), 1U);
  EXPECT_EQ(own[0].rid, "own");
  EXPECT_EQ(compute({.videoEncoding = MaxBitrate{}}).at(0).maxBitrateBps, 0);
  EXPECT_EQ(compute({.videoEncoding = MaxBitrate{7}, .simulcast = true}).size(), 3U);
}

TEST(VideoCodecCapabilityResolverTest, picksTheEntry) {
  const auto codecs = parseJson(R"([7, {"mimeType": 1}, {"mimeType":"audio/opus"},
      {"mimeType":"VIDEO/h264","n":1},
      {"mimeType":"video/H264","n":2,"parameters":{"profile-level-id":"42E01F"}},
      {"mimeType":"video/H264","n":3,"parameters":{"profile-level-id":"42e01f"}},
      {"mimeType":"video/VP9","parameters":{"profile-level-id":"42e01f"}}])")
                          ->get_array();
  using Resolver = VideoCodecCapabilityResolver;
  auto number = [&](const char* profile) {
    return Resolver::resolveCodecJSON(VideoCodec::H264, codecs, profile).value().substr(0, 30);
  };
  EXPECT_EQ(number("42e01f"), R"({"mimeType":"video/H264","n":2)");
  EXPECT_EQ(number("640c1f"), R"({"mimeType":"VIDEO/h264","n":1)");
  EXPECT_FALSE(Resolver::resolveCodecJSON(VideoCodec::VP8, codecs));
  EXPECT_FALSE(Resolver::resolveCodecJSON(VideoCodec::AV1, codecs));
  EXPECT_FALSE(Resolver::resolveCodecJSON(VideoCodec::VP9, {}));
  EXPECT_TRUE(Resolver::isCodecSupported(VideoCodec::VP8, {}));
  EXPECT_TRUE(Resolver::isCodecSupported(VideoCodec::VP9, codecs));
  EXPECT_FALSE(Resolver::isCodecSupported(VideoCodec::AV1, codecs));
  EXPECT_FALSE(Resolver::isCodecSupported(VideoCodec::H264, {}));
}

}  // namespace
}  // namespace kestrova
