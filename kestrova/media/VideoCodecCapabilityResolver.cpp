#include <kestrova/media/VideoCodecCapabilityResolver.h>
#include <kestrova/tracing/RoutedTracer.h>

#include <algorithm>

namespace kestrova {
namespace {

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return lower;
}

bool holds(const Dictionary& dictionary, std::string_view key, std::string_view wanted) {
  const auto value = text(dictionary, key);
  return value && lowerCase(*value) == lowerCase(wanted);
}

bool hasProfile(const Dictionary& codec, std::string_view profileLevelId) {
  const auto* parameters = dictionary(codec, "parameters");
  return parameters && holds(*parameters, "profile-level-id", profileLevelId);
}

// The first entry of the MIME type, but the first of the preferred profile goes before it.
const Value* findCodec(VideoCodec codec, const List& codecs,
                       std::optional<std::string_view> preferredH264ProfileLevelId) {
  const auto mimeType = "video/" + std::string(text(codec));
  const Value* first = nullptr;
  for (const auto& entry : codecs) {
    if (!holds(asDictionary(entry), "mimeType", mimeType)) continue;
    if (codec != VideoCodec::H264 || !preferredH264ProfileLevelId) return &entry;
    if (hasProfile(entry.get_object(), *preferredH264ProfileLevelId)) return &entry;
    if (!first) first = &entry;
  }
  return first;
}

void log(const TraceText& line) {
  RoutedTracer(targetMasks::consoles).debug(line, {.component = ComponentCategory::media});
}

}  // namespace

bool VideoCodecCapabilityResolver::isCodecSupported(VideoCodec codec, const List& codecsJSON) {
  return codec == VideoCodec::VP8 || findCodec(codec, codecsJSON, std::nullopt) != nullptr;
}

std::optional<std::string> VideoCodecCapabilityResolver::resolveCodecJSON(
    VideoCodec codec, const List& codecsJSON,
    std::optional<std::string_view> preferredH264ProfileLevelId) {
  if (codec == VideoCodec::VP8) return std::nullopt;
  if (codecsJSON.empty()) {
    log("[VideoCodecCapabilityResolver] No codecs found in RTP capabilities.");
    return std::nullopt;
  }
  const auto* entry = findCodec(codec, codecsJSON, preferredH264ProfileLevelId);
  if (!entry) {
    log([&] {
      return "[VideoCodecCapabilityResolver] Codec " + std::string(text(codec)) +
             " not supported by server.";
    });
    return std::nullopt;
  }
  return jsonText(*entry);
}

}  // namespace kestrova
