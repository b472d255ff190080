#pragma once

#include <kestrova/media/AppData.h>
#include <kestrova/media/MediaType.h>
#include <kestrova/platform/Mediasoup.h>

#include <string>

namespace kestrova {

/// What the application data of a stream says of it.
struct StreamFacts {
  MediaType kind;  ///< a shared sound counts as sound
  std::string peerId;
};

inline StreamFacts factsOf(const RtpStream& stream) {
  const auto appData = stream.appData();
  const bool isSharedScreen = stream.kind() == MediaKind::video && isShare(appData);
  return {mediaTypeOf(stream.kind(), isSharedScreen), text(parseDictionary(appData), "peerId", "")};
}

}  // namespace kestrova
