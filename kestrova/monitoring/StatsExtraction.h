#pragma once

#include <kestrova/platform/Values.h>

#include <optional>
#include <string_view>

namespace kestrova {

// What the engine's statistics say, read out of one entry of its list each. An entry is a
// dictionary whose keys are the W3C's webrtc-stats identifiers; one that lacks a key gives 0, or
// leaves what hangs on it out.
//
// `previous` is what the report of the look before holds at the same place, and may be empty.
// Differences are taken without their sign, since counters start over; rates are in kbit/s, and 0
// where no time has passed.

/// The kinds of entries that are read.
enum class StateType {
  candidatePair,
  codec,
  inboundRtp,
  localCandidate,
  mediaSource,
  outboundRtp,
  remoteCandidate,
  remoteInboundRtp,
  remoteOutboundRtp,
  track
};
/// By the entry's "type"; nothing for any other.
std::optional<StateType> stateTypeFrom(std::string_view type);

/// The pair of candidates that carries the media: the one that its transport's entry names, else
/// the nominated one, else any that succeeded. Nothing without any.
const Dictionary* selectedCandidatePair(const List& raw);

/// What the first hop is made of, as the engine weighs the cost of its networks.
enum class InfrastructureValue {
  ethernet = 0,
  cellular5g = 250,
  wifi = 10,
  cellular4g = 500,
  cellular = 900
};

/// "totalKBytesReceived", "totalKBytesSent", "deltaKBytesReceived", "deltaKBytesSent",
/// "kbsReceived", "kbsSent" of a candidate pair.
Dictionary extractBytesSentReceived(const Dictionary& stat, const Dictionary& previous,
                                    double elapsedMs);
/// "totalRTT", "totalRTTMeasurements", "rtt" in milliseconds, by the pair's connectivity checks.
Dictionary extractRTTBasedOnSTUNConnectivityCheck(const Dictionary& stat,
                                                  const Dictionary& previous);
/// The same by the reports of the other side.
Dictionary extractRTTBasedOnRTCP(const Dictionary& stat, const Dictionary& previous);
/// "infrastructure", "localCandidateProtocol", "localCandidateRelayProtocol" of a local candidate.
Dictionary extractRelayProtocolUsed(const Dictionary& stat);
/// "kbsIncomingBandwidth", "kbsOutgoingBandwidth" of a candidate pair.
Dictionary extractAvailableBandwidth(const Dictionary& stat);
/// "totalPacketsReceived", "deltaPacketsReceived", "totalPacketsLost", "deltaPacketsLost",
/// "percentPacketsLost", "totalKBytesReceived", "deltaKBytesReceived", "kbsReceived".
Dictionary extractAudioVideoPacketReceived(const Dictionary& stat, const Dictionary& previous,
                                           double elapsedMs);
/// "totalPacketsSent", "deltaPacketsSent", "totalKBytesSent", "deltaKBytesSent", "kbsSent".
Dictionary extractAudioVideoPacketSent(const Dictionary& stat, const Dictionary& previous,
                                       double elapsedMs);
/// "totalPacketsLost", "deltaPacketsLost", "percentPacketsLost" of what is sent.
Dictionary extractAudioVideoPacketLost(const Dictionary& stat, const Dictionary& previous);
/// How the decoder bridges what is late: "totalConcealmentEvents", "deltaConcealmentEvents" and
/// four of samples that were inserted or removed.
Dictionary extractAudioEventsData(const Dictionary& stat, const Dictionary& previous);
/// "width", "height", "framerate".
Dictionary extractVideoSize(const Dictionary& stat);
/// "reason", "durations", "resolutionChanges".
Dictionary extractQualityLimitation(const Dictionary& stat);
/// In milliseconds; nothing without a measurement.
std::optional<double> extractLastJitter(const Dictionary& stat);
/// "mime_type", "clock_rate", "channels", "sdp_fmtp_line"; empty for what is no codec of media.
Dictionary extractAudioCodec(const Dictionary& stat);
/// "mime_type", "clock_rate"; empty for the codec of retransmissions.
Dictionary extractVideoCodec(const Dictionary& stat);

}  // namespace kestrova
