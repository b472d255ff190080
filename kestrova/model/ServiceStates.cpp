#include <kestrova/model/ServiceStates.h>
#include <kestrova/platform/Values.h>

namespace kestrova {

HLSUrl HLSUrl::fromJson(const Dictionary& json) {
  return {text(json, "downstreamUrl"), text(json, "playbackHlsUrl"), text(json, "livestreamUrl")};
}

TranscriptionText TranscriptionText::fromJson(const Dictionary& json) {
  const auto read = [&](const char* key) { return kestrova::text(json, key, ""); };
  return {read("participantId"), read("participantName"), read("text"),
          integer(json, "timestamp", 0), read("type")};
}

}  // namespace kestrova
