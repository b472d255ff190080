#pragma once

#include <kestrova/platform/linux/e2ee/FrameCipher.h>

#include <memory>
#include <string>
#include <string_view>

namespace kestrova::e2ee::test {

inline Bytes bytes(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

inline FrameCryptorKeyOptions keyOptions() {
  return {.ratchetSalt = bytes("salt"), .uncryptedMagicBytes = bytes("MAGIC")};
}

inline std::shared_ptr<KeyRing> ring(std::string_view key = "a key",
                                     FrameCryptorKeyOptions options = keyOptions()) {
  auto made = std::make_shared<KeyRing>(std::move(options));
  if (!key.empty()) made->setSharedKey(bytes(key), 0);
  return made;
}

/// What a cipher gave, kept beyond its next call; empty when the frame goes no further.
inline Bytes kept(const FrameCipher::Result& result) {
  return result.frame ? Bytes(result.frame->begin(), result.frame->end()) : Bytes();
}

}  // namespace kestrova::e2ee::test
