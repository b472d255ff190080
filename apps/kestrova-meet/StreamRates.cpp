#include "StreamRates.h"

#include <kestrova/platform/Values.h>

#include <algorithm>

namespace kestrova::meet {

void StreamRates::take(const std::string& stats, Clock::time_point now) {
  const auto parsed = parseJson(stats);
  if (!parsed || !parsed->is_array()) return;

  double bytes = 0;
  Rates rates;
  for (const auto& entry : parsed->get_array()) {
    const auto& object = asDictionary(entry);
    const auto type = text(object, "type", "");
    if (type == "inbound-rtp" || type == "outbound-rtp") {
      const bool in = type == "inbound-rtp";
      bytes += number(object, in ? "bytesReceived" : "bytesSent", 0);
      const auto width = static_cast<int>(number(object, "frameWidth", 0));
      if (width > rates.width) {
        rates.width = width;
        rates.height = static_cast<int>(number(object, "frameHeight", 0));
      }
      rates.fps = std::max(rates.fps, number(object, "framesPerSecond", 0));
    } else if (type == "candidate-pair" && boolean(object, "nominated", false)) {
      if (const auto seconds = number(object, "currentRoundTripTime"))
        rates.roundTripMs = *seconds * 1000;
    }
  }
  if (_takenAt && now > *_takenAt) {
    const double seconds = std::chrono::duration<double>(now - *_takenAt).count();
    // A stream that starts over counts from nothing.
    rates.kbps = std::max(0.0, bytes - _bytes) * 8 / 1000 / seconds;
  }
  _takenAt = now;
  _bytes = bytes;
  _rates = rates;
}

}  // namespace kestrova::meet
