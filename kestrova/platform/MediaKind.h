#pragma once

#include <string_view>

namespace kestrova {

enum class MediaKind { audio, video };
constexpr std::string_view text(MediaKind kind) {
  return kind == MediaKind::audio ? "audio" : "video";
}

}  // namespace kestrova
