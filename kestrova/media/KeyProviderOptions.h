#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace kestrova {

/// What all clients of one deployment must have in common, to be replaced as a pair.
inline constexpr std::string_view defaultRatchetSalt = "TidalMarrowHarborLanternQuail";
inline constexpr std::string_view defaultMagicBytes = "Ember-Walnut-Orchid-Gable";

inline constexpr std::int32_t defaultRatchetWindowSize = 0;
inline constexpr std::int32_t defaultFailureTolerance = -1;  // never give up
inline constexpr std::int32_t defaultKeyRingSize = 16;

/// How the keys of a meeting are made and used.
struct KeyProviderOptions {
  bool sharedKey = true;  ///< one key for all participants
  std::vector<std::uint8_t> ratchetSalt = {defaultRatchetSalt.begin(), defaultRatchetSalt.end()};
  std::int32_t ratchetWindowSize = defaultRatchetWindowSize;
  /// A frame that starts with them is not encrypted.
  std::vector<std::uint8_t> uncryptedMagicBytes = {defaultMagicBytes.begin(),
                                                   defaultMagicBytes.end()};
  std::int32_t failureTolerance = defaultFailureTolerance;
  std::int32_t keyRingSize = defaultKeyRingSize;
  bool discardFrameWhenCryptorNotReady = false;
};

}  // namespace kestrova
