#pragma once

#include <kestrova/platform/EnumTexts.h>
#include <kestrova/platform/MediaKind.h>

#include <string_view>

namespace kestrova {

/// What a stream shows: a medium of the person, or a shared screen.
enum class MediaType { audio, video, share };

/// "audio", "video" or "share".
constexpr std::string_view text(MediaType type) {
  return type == MediaType::share ? "share" : type == MediaType::video ? "video" : "audio";
}
/// "video" and "share" by name; any other text counts as audio.
constexpr MediaType mediaTypeFrom(std::string_view kind) {
  return kind == "share" ? MediaType::share : kind == "video" ? MediaType::video : MediaType::audio;
}
/// A shared sound belongs to the share.
constexpr MediaType mediaTypeOf(MediaKind kind, bool share) {
  if (share) return MediaType::share;
  return kind == MediaKind::audio ? MediaType::audio : MediaType::video;
}

/// What became of a stream's encryption.
enum class E2EEState {
  EncryptionSuccess,
  DecryptionSuccess,
  EncryptionFailed,
  DecryptionFailed,
  InternalError
};
/// The cases' names.
inline constexpr EnumTexts<E2EEState, 5> e2eeStateTexts{{"EncryptionSuccess", "DecryptionSuccess",
                                                         "EncryptionFailed", "DecryptionFailed",
                                                         "InternalError"}};
constexpr std::string_view text(E2EEState state) {
  return e2eeStateTexts(state);
}

}  // namespace kestrova
