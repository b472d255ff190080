#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kestrova {

/// The present numbers of one stream, as the last look at the engine's statistics gave them; one
/// look every two seconds. Rates are means since the look before. Of a camera that is sent in
/// several layers, sums and worst values of all layers, and the size of the largest that is sent.
struct StreamMetrics {
  /// Of the look, in milliseconds since 1970; 0 before the first.
  std::int64_t timestampMs = 0;
  /// Payload, in kbit/s.
  double bitrateKbps = 0;
  /// Pictures that were sent or decoded, a second: 0 while the picture stands still, and for sound.
  double framesPerSecond = 0;
  /// Of the picture, in pixels; 0 for sound, before the first picture, and while none is sent.
  int width = 0;
  int height = 0;
  /// To the media server and back. Nothing before the first report.
  std::optional<double> roundTripMs{};
  /// Of the packets since the look before; what is sent, as the server reports it.
  std::optional<double> packetLossPercent{};
  std::optional<double> jitterMs{};
  /// Of sound, from 0 to 1.
  std::optional<double> audioLevel{};
  /// How often a received picture has stood still so far, and how long together. The engine counts
  /// a freeze when the picture moves again.
  std::int64_t freezes = 0;
  double freezeSeconds = 0;
  /// As in "video/VP8"; empty before the first packet.
  std::string codec{};

  bool operator==(const StreamMetrics&) const = default;
};

/// The numbers of one stream, and whose it is: a participant's, or a character's.
struct StreamMeasurement {
  std::string ownerId;
  std::string streamId;
  StreamMetrics metrics;
};

}  // namespace kestrova
