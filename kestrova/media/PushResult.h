#pragma once

#include <kestrova/platform/EnumTexts.h>

#include <cstdint>
#include <string_view>

namespace kestrova {

/// What became of a picture or of samples that an application pushed.
enum class PushResult {
  accepted,
  noData,
  badSize,
  badStride,
  badRotation,
  badTime,
  timeWentBack,
  badSampleRate,
  badChannels,
  badBlock,
  queueFull
};

inline constexpr EnumTexts<PushResult, 11> pushResultTexts = {
    {"accepted", "a plane or the samples are missing", "width and height must be from 1 to 8192",
     "a stride is shorter than its row", "rotation must be 0, 90, 180 or 270",
     "the time stamp is no reading of the monotonic clock", "the time stamp doesn't go on",
     "the sample rate must be 8000, 12000, 16000, 24000, 32000, 44100 or 48000",
     "there must be 1 or 2 channels", "PCM must come in blocks of 10 ms",
     "too much sound is waiting already"}};

/// One line for people.
constexpr std::string_view text(PushResult result) {
  return pushResultTexts(result);
}

/// How a source has fared so far.
struct PushCounters {
  std::uint64_t accepted = 0;
  std::uint64_t refused = 0;  ///< everything else
};

}  // namespace kestrova
