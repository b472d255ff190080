#include <kestrova/platform/linux/mediasoup/H264Profile.h>
#include <kestrova/platform/linux/mediasoup/RtpParameters.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>

namespace kestrova::mediasoup {
namespace {

/// Level 1b sorts below 1.1 and above 1.0.
constexpr int kLevel1b = 9;
/// constraint_set3_flag: level 1b in the profiles that have no level_idc of its own for it.
constexpr int kConstraintSet3 = 0x10;

struct Pattern {
  int idc;
  int mask;   // the bits of the second byte that matter
  int value;  // what they must be
  H264Profile::Name name;
};

constexpr std::array kPatterns{
    Pattern{0x42, 0x4f, 0x40, H264Profile::Name::constrainedBaseline},
    Pattern{0x4d, 0x8f, 0x80, H264Profile::Name::constrainedBaseline},
    Pattern{0x58, 0xcf, 0xc0, H264Profile::Name::constrainedBaseline},
    Pattern{0x42, 0x4f, 0x00, H264Profile::Name::baseline},
    Pattern{0x58, 0xcf, 0x80, H264Profile::Name::baseline},
    Pattern{0x4d, 0xaf, 0x00, H264Profile::Name::main},
    Pattern{0x64, 0xff, 0x00, H264Profile::Name::high},
    Pattern{0x64, 0xff, 0x0c, H264Profile::Name::constrainedHigh},
    Pattern{0xf4, 0xff, 0x00, H264Profile::Name::predictiveHigh444},
};

constexpr std::array kLevels{10, 11, 12, 13, 20, 21, 22, 30, 31, 32, 40, 41, 42, 50, 51, 52};

struct Bytes {
  int idc;
  int constraints;
};
constexpr std::array<Bytes, 6> kWritten{Bytes{0x42, 0xe0}, Bytes{0x42, 0x00}, Bytes{0x4d, 0x00},
                                        Bytes{0x64, 0x0c}, Bytes{0x64, 0x00}, Bytes{0xf4, 0x00}};

/// The order of levels: 1b stands between 1.0 and 1.1.
double rank(int level) {
  return level == kLevel1b ? 10.5 : level;
}

/// Where a codec names none: constrained baseline, level 3.1, as WebRTC endpoints have it, a media
/// server's own client among them. (The RFC's default, baseline at level 1, is sent by none.)
std::optional<H264Profile> profileOf(const Dictionary& parameters) {
  return parseH264Profile(parameterText(parameters, "profile-level-id", "42e01f"));
}

}  // namespace

std::optional<H264Profile> parseH264Profile(std::string_view profileLevelId) {
  if (profileLevelId.size() != 6) return std::nullopt;
  unsigned bits = 0;
  const auto* end = profileLevelId.data() + profileLevelId.size();
  const auto read = std::from_chars(profileLevelId.data(), end, bits, 16);
  if (read.ec != std::errc() || read.ptr != end) return std::nullopt;
  const int idc = static_cast<int>(bits >> 16);
  const int constraints = static_cast<int>(bits >> 8 & 0xff);
  int level = static_cast<int>(bits & 0xff);
  const bool flagged1b =
      level == 11 && idc != 0x64 && idc != 0xf4 && (constraints & kConstraintSet3);
  if (flagged1b) level = kLevel1b;
  if (level != kLevel1b && std::find(kLevels.begin(), kLevels.end(), level) == kLevels.end())
    return std::nullopt;
  for (const auto& pattern : kPatterns)
    if (pattern.idc == idc && (constraints & pattern.mask) == pattern.value)
      return H264Profile{pattern.name, level};
  return std::nullopt;
}

std::string profileLevelId(const H264Profile& profile) {
  auto bytes = kWritten.at(static_cast<std::size_t>(profile.name));
  int level = profile.level;
  if (level == kLevel1b && bytes.idc != 0x64 && bytes.idc != 0xf4) {
    level = 11;
    bytes.constraints |= kConstraintSet3;
  }
  std::array<char, 16> written{};
  std::snprintf(written.data(), written.size(), "%02x%02x%02x", bytes.idc, bytes.constraints,
                level);
  return written.data();
}

bool sameH264(const Dictionary& a, const Dictionary& b) {
  if (parameterNumber(a, "packetization-mode").value_or(0) !=
      parameterNumber(b, "packetization-mode").value_or(0))
    return false;
  const auto first = profileOf(a);
  const auto second = profileOf(b);
  return first && second && first->name == second->name;
}

std::string answeredH264(const Dictionary& local, const Dictionary& remote) {
  const auto own = profileOf(local).value_or(H264Profile());
  const auto other = profileOf(remote).value_or(own);
  const bool asymmetric = parameterNumber(local, "level-asymmetry-allowed").value_or(0) == 1 &&
                          parameterNumber(remote, "level-asymmetry-allowed").value_or(0) == 1;
  const bool ownIsLower = rank(own.level) <= rank(other.level);
  return profileLevelId({own.name, asymmetric || ownIsLower ? own.level : other.level});
}

}  // namespace kestrova::mediasoup
