#pragma once

#include <kestrova/tracing/TraceValue.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace kestrova::inspector {

/// Milliseconds since 1970.
using Ms = std::int64_t;

/// Whole answers of the service are among the texts; a page shows the beginning.
inline constexpr std::size_t longestText = 2000;
/// Cuts a text to that length in bytes, not within a letter.
void shorten(std::string& text);

struct MeetingFacts {
  std::string id;
  std::string localParticipantId;
  std::string state;
  bool operator==(const MeetingFacts&) const = default;
};

struct ParticipantFacts {
  std::string id;
  std::string name;
  bool local = false;
  std::string mode;
  Ms joinedAt = 0;
  std::optional<Ms> leftAt{};
};

struct StreamFacts {
  std::string id;
  std::string kind;  ///< "audio", "video", "share" or "shareAudio"
  Ms startedAt = 0;
  std::optional<Ms> endedAt{};
  std::string state = "ACTIVE";
  std::string codec{};
};

/// How a stream flows at one moment. What is not known is left out.
struct StreamSample {
  Ms t = 0;
  std::optional<double> bitrateKbps{};
  std::optional<double> framesPerSecond{};
  std::optional<double> width{};
  std::optional<double> height{};
  std::optional<double> roundTripMs{};
  std::optional<double> lossPercent{};
  std::optional<double> jitterMs{};
  std::optional<double> level{};
  std::optional<double> freezes{};
};

/// Something that is worth a mark on the time line.
struct Mark {
  Ms t = 0;
  std::string kind;  ///< "state", "quality", "stream", "error" or "participant"
  std::string text;
  std::optional<std::string> participantId{};
  std::optional<std::string> streamId{};
  std::optional<int> code{};
};

struct SpanFacts {
  std::string id;
  std::optional<std::string> parentId{};
  std::string name;
  Ms start = 0;
  std::optional<Ms> durationMs{};  ///< nothing while it runs, like `success`
  std::optional<bool> success{};
  std::string message{};
  TraceAttributes attributes{};
  std::string category{};
};

struct EventFacts {
  Ms t = 0;
  std::string name;
  std::optional<std::string> parentId{};
  std::string category{};
  std::optional<bool> success{};
  TraceAttributes attributes{};
};

}  // namespace kestrova::inspector
