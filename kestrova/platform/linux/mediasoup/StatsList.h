#pragma once

#include <kestrova/platform/Values.h>

#include <string>

namespace webrtc {
class RTCStatsReport;
}

namespace kestrova::mediasoup {

// The engine writes time stamps in microseconds, the standard has milliseconds.

/// The engine's statistics as JSON text of a list of objects.
std::string statsText(const webrtc::RTCStatsReport& report);
/// The same without going through text, in memory of its own.
List statsList(const webrtc::RTCStatsReport& report);

}  // namespace kestrova::mediasoup
