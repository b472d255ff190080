#pragma once

#include <kestrova/platform/Values.h>

#include <string>
#include <utility>

namespace kestrova::test {

// Statistics as the engine lists them, with what a test wants to say of them.

inline Dictionary with(Dictionary stat, const Dictionary& more) {
  for (const auto& [key, value] : more) stat[key] = value;
  return stat;
}

inline Dictionary received(const char* kind, std::int64_t ssrc, const std::string& track,
                           const Dictionary& more = {}) {
  return with({{"type", "inbound-rtp"},
               {"id", "I" + std::to_string(ssrc)},
               {"kind", kind},
               {"ssrc", ssrc},
               {"trackIdentifier", track}},
              more);
}

inline Dictionary sent(const char* kind, std::int64_t ssrc, const Dictionary& more = {}) {
  const auto number = std::to_string(ssrc);
  return with({{"type", "outbound-rtp"},
               {"id", "O" + number},
               {"kind", kind},
               {"ssrc", ssrc},
               {"mediaSourceId", "S-" + std::string(kind)},
               {"remoteId", "R" + number}},
              more);
}

inline Dictionary source(const char* kind, const std::string& track, const Dictionary& more = {}) {
  return with(
      {{"type", "media-source"}, {"id", "S-" + std::string(kind)}, {"trackIdentifier", track}},
      more);
}

inline Dictionary reported(const char* kind, std::int64_t ssrc, const Dictionary& more = {}) {
  return with({{"type", "remote-inbound-rtp"},
               {"id", "R" + std::to_string(ssrc)},
               {"kind", kind},
               {"ssrc", ssrc}},
              more);
}

inline Dictionary pair(const char* id, bool nominated, const Dictionary& more = {}) {
  return with({{"type", "candidate-pair"},
               {"id", id},
               {"state", "succeeded"},
               {"nominated", nominated},
               {"localCandidateId", std::string("local-") + id}},
              more);
}

inline Dictionary candidate(const char* pairId, const Dictionary& more) {
  return with({{"type", "local-candidate"}, {"id", std::string("local-") + pairId}}, more);
}

}  // namespace kestrova::test
