#pragma once

#include <kestrova/platform/Values.h>

#include <optional>
#include <string>
#include <string_view>

namespace kestrova::mediasoup {

/// What a "profile-level-id" of RFC 6184, section 8.1, says.
struct H264Profile {
  enum class Name { constrainedBaseline, baseline, main, constrainedHigh, high, predictiveHigh444 };
  Name name = Name::constrainedBaseline;
  int level = 0;  ///< ten times the level; 9 stands for level 1b
};

/// Nothing when the text is no profile-level-id, or one that no encoder of ours knows.
std::optional<H264Profile> parseH264Profile(std::string_view profileLevelId);
std::string profileLevelId(const H264Profile& profile);

/// Whether a sender with parameters `a` and one with `b` can speak to each other: same profile and
/// packetization mode.
bool sameH264(const Dictionary& a, const Dictionary& b);
/// The profile-level-id that an answer carries, RFC 6184, section 8.2.2: our own level where both
/// sides allow levels to differ, else the lower of the two.
std::string answeredH264(const Dictionary& local, const Dictionary& remote);

}  // namespace kestrova::mediasoup
