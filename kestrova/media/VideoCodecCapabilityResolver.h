#pragma once

#include <kestrova/media/EncodingTypes.h>
#include <kestrova/platform/Values.h>

#include <optional>
#include <string>
#include <string_view>

namespace kestrova {

/// Picks codecs out of a device's capabilities: the list "codecs" of its RTP capabilities.
class VideoCodecCapabilityResolver {
public:
  /// VP8 always is.
  static bool isCodecSupported(VideoCodec codec, const List& codecsJSON);
  /// The JSON text of the codec's entry; for H264 that of the preferred profile, where there is
  /// one. Nothing for VP8, which needs no naming, and when there is no such entry.
  static std::optional<std::string> resolveCodecJSON(
      VideoCodec codec, const List& codecsJSON,
      std::optional<std::string_view> preferredH264ProfileLevelId = std::nullopt);
};

}  // namespace kestrova
