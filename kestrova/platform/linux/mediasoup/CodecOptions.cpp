#include <kestrova/platform/linux/mediasoup/CodecOptions.h>

#include <algorithm>
#include <array>

namespace kestrova::mediasoup {
namespace {

struct Flag {
  std::string_view option;
  std::string_view offered;
  std::string_view answered;
};
constexpr std::array kOpusFlags{Flag{"opusStereo", "sprop-stereo", "stereo"},
                                Flag{"opusFec", "useinbandfec", "useinbandfec"},
                                Flag{"opusDtx", "usedtx", "usedtx"}};

struct Range {
  std::string_view option;
  std::string_view answered;
  std::int64_t low;
  std::int64_t high;
};
/// RFC 7587 for Opus; for video anything from nothing to 1 Gbit/s.
constexpr std::array kOpusNumbers{Range{"opusMaxPlaybackRate", "maxplaybackrate", 8000, 48000},
                                  Range{"opusMaxAverageBitrate", "maxaveragebitrate", 6000, 510000},
                                  Range{"opusPtime", "ptime", 3, 120}};
constexpr std::array kVideoNumbers{
    Range{"videoGoogleStartBitrate", "x-google-start-bitrate", 1, 1'000'000},
    Range{"videoGoogleMaxBitrate", "x-google-max-bitrate", 1, 1'000'000},
    Range{"videoGoogleMinBitrate", "x-google-min-bitrate", 1, 1'000'000}};

template <class Ranges>
void applyNumbers(const Ranges& ranges, const Dictionary& options, RtpCodec& codec) {
  for (const auto& range : ranges) {
    const auto value = parameterNumber(options, range.option);
    if (value && *value >= range.low && *value <= range.high)
      codec.parameters[range.answered] = *value;
  }
}

}  // namespace

void applyCodecOptions(const Dictionary& options, RtpCodec& offered, RtpCodec& answered) {
  if (offered.kind == MediaKind::video) {
    applyNumbers(kVideoNumbers, options, answered);
    return;
  }
  if (!sameText(offered.name(), "opus")) return;
  for (const auto& flag : kOpusFlags)
    if (const auto wanted = boolean(options, flag.option)) {
      offered.parameters[flag.offered] = *wanted ? 1 : 0;
      answered.parameters[flag.answered] = *wanted ? 1 : 0;
    }
  applyNumbers(kOpusNumbers, options, answered);
}

bool isScalabilityMode(const RtpCodec& codec, std::string_view mode) {
  if (mode.size() < 4 || mode[0] != 'L' || mode[2] != 'T' || mode[3] < '1' || mode[3] > '3')
    return false;
  const bool layered = sameText(codec.name(), "VP9");
  if (mode[1] == '1') return mode.size() == 4;
  if (!layered || (mode[1] != '2' && mode[1] != '3')) return false;
  return mode.size() == 4 || mode.substr(4) == "_KEY";
}

}  // namespace kestrova::mediasoup
