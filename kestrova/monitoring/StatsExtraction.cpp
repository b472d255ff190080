#include <kestrova/monitoring/StatsExtraction.h>
#include <kestrova/platform/EnumTexts.h>

#include <cmath>
#include <string>
#include <utility>

namespace kestrova {
namespace {

constexpr double bytesInKByte = 1024;
constexpr double msInSecond = 1000;

constexpr EnumTexts<StateType, 10> stateTypeTexts{
    {"candidate-pair", "codec", "inbound-rtp", "local-candidate", "media-source", "outbound-rtp",
     "remote-candidate", "remote-inbound-rtp", "remote-outbound-rtp", "track"}};

double kBytes(const Dictionary& stat, std::string_view key) {
  return number(stat, key, 0) / bytesInKByte;
}

double difference(double now, const Dictionary& previous, std::string_view key) {
  return std::abs(now - number(previous, key, 0));
}

/// A count stays a whole number.
std::int64_t countDifference(std::int64_t now, const Dictionary& previous, std::string_view key) {
  return static_cast<std::int64_t>(difference(static_cast<double>(now), previous, key));
}

double kbs(double deltaKBytes, double elapsedMs) {
  return elapsedMs > 0 ? deltaKBytes * 8 * bytesInKByte / elapsedMs : 0;
}

double percentLost(double lost, double received) {
  return lost + received > 0 ? lost * 100 / (received + lost) : 0;
}

Dictionary roundTrip(const Dictionary& stat, const Dictionary& previous, const char* currentKey,
                     const char* countKey, const char* previousTotal, const char* previousCount) {
  const double total = number(stat, "totalRoundTripTime", 0) * msInSecond;
  const double count = number(stat, countKey, 0);
  const double measurements = difference(count, previous, previousCount);
  Dictionary result{{"totalRTT", total}, {"totalRTTMeasurements", count}};
  const double mean =
      measurements > 0 ? difference(total, previous, previousTotal) / measurements : 0;
  if (mean > 0)
    result["rtt"] = mean;
  else if (const auto current = number(stat, currentKey))
    result["rtt"] = *current * msInSecond;
  return result;
}

std::optional<InfrastructureValue> infrastructureOf(std::string_view networkType) {
  if (networkType == "ethernet") return InfrastructureValue::ethernet;
  if (networkType == "wifi") return InfrastructureValue::wifi;
  if (networkType == "cellular5g") return InfrastructureValue::cellular5g;
  if (networkType == "cellular4g") return InfrastructureValue::cellular4g;
  if (networkType.starts_with("cellular")) return InfrastructureValue::cellular;
  return std::nullopt;
}

/// What is read of a counter, and what its total and growth are called.
struct Counter {
  std::string_view key;
  std::string_view total;
  std::string_view delta;
};

void putCounter(Dictionary& result, const Dictionary& stat, const Dictionary& previous,
                const Counter& counter, std::string_view previousKey) {
  const auto total = integer(stat, counter.key, 0);
  result[counter.total] = total;
  result[counter.delta] = countDifference(total, previous, previousKey);
}

constexpr Counter bytesReceived{"bytesReceived", "totalKBytesReceived", "deltaKBytesReceived"};
constexpr Counter bytesSent{"bytesSent", "totalKBytesSent", "deltaKBytesSent"};
constexpr Counter packetsLost{"packetsLost", "totalPacketsLost", "deltaPacketsLost"};

void putKBytes(Dictionary& result, const Dictionary& stat, const Dictionary& previous,
               const Counter& counter, std::string_view rate, std::string_view previousKey,
               double elapsedMs) {
  const double total = kBytes(stat, counter.key);
  const double delta = difference(total, previous, previousKey);
  result[counter.total] = total;
  result[counter.delta] = delta;
  result[rate] = kbs(delta, elapsedMs);
}

}  // namespace

std::optional<StateType> stateTypeFrom(std::string_view type) {
  return stateTypeTexts.parse(type);
}

const Dictionary* selectedCandidatePair(const List& raw) {
  std::string_view selected;
  for (const auto& value : raw)
    if (textView(asDictionary(value), "type") == "transport")
      selected = textView(asDictionary(value), "selectedCandidatePairId");
  const Dictionary* nominated = nullptr;
  const Dictionary* succeeded = nullptr;
  for (const auto& value : raw) {
    const auto& stat = asDictionary(value);
    if (textView(stat, "type") != "candidate-pair" || textView(stat, "state") != "succeeded")
      continue;
    if (!selected.empty() && textView(stat, "id") == selected) return &stat;
    if (boolean(stat, "nominated", false)) nominated = &stat;
    succeeded = &stat;
  }
  return nominated ? nominated : succeeded;
}

Dictionary extractBytesSentReceived(const Dictionary& stat, const Dictionary& previous,
                                    double elapsedMs) {
  Dictionary result;
  putKBytes(result, stat, previous, bytesReceived, "kbsReceived", "total_KBytes_received",
            elapsedMs);
  putKBytes(result, stat, previous, bytesSent, "kbsSent", "total_KBytes_sent", elapsedMs);
  return result;
}

Dictionary extractRTTBasedOnSTUNConnectivityCheck(const Dictionary& stat,
                                                  const Dictionary& previous) {
  return roundTrip(stat, previous, "currentRoundTripTime", "responsesReceived",
                   "total_rtt_connectivity_ms", "total_rtt_connectivity_measure");
}

Dictionary extractRTTBasedOnRTCP(const Dictionary& stat, const Dictionary& previous) {
  return roundTrip(stat, previous, "roundTripTime", "roundTripTimeMeasurements", "total_rtt_ms_out",
                   "total_rtt_measure_out");
}

Dictionary extractRelayProtocolUsed(const Dictionary& stat) {
  Dictionary result;
  // Only the adapter's type knows the generations of cellular networks.
  auto infrastructure = infrastructureOf(text(stat, "networkAdapterType", ""));
  if (!infrastructure) infrastructure = infrastructureOf(text(stat, "networkType", ""));
  if (infrastructure) result["infrastructure"] = static_cast<int>(*infrastructure);
  if (auto protocol = text(stat, "protocol"))
    result["localCandidateProtocol"] = std::move(*protocol);
  if (text(stat, "candidateType", "") == "relay")
    if (auto protocol = text(stat, "relayProtocol"))
      result["localCandidateRelayProtocol"] = std::move(*protocol);
  return result;
}

Dictionary extractAvailableBandwidth(const Dictionary& stat) {
  return {{"kbsIncomingBandwidth", kBytes(stat, "availableIncomingBitrate")},
          {"kbsOutgoingBandwidth", kBytes(stat, "availableOutgoingBitrate")}};
}

Dictionary extractAudioVideoPacketReceived(const Dictionary& stat, const Dictionary& previous,
                                           double elapsedMs) {
  Dictionary result;
  result.reserve(8);
  putCounter(result, stat, previous,
             {"packetsReceived", "totalPacketsReceived", "deltaPacketsReceived"},
             "total_packets_in");
  putCounter(result, stat, previous, packetsLost, "total_packets_lost_in");
  result["percentPacketsLost"] =
      percentLost(number(result, "deltaPacketsLost", 0), number(result, "deltaPacketsReceived", 0));
  putKBytes(result, stat, previous, bytesReceived, "kbsReceived", "total_KBytes_in", elapsedMs);
  return result;
}

Dictionary extractAudioVideoPacketSent(const Dictionary& stat, const Dictionary& previous,
                                       double elapsedMs) {
  Dictionary result;
  putCounter(result, stat, previous, {"packetsSent", "totalPacketsSent", "deltaPacketsSent"},
             "total_packets_out");
  putKBytes(result, stat, previous, bytesSent, "kbsSent", "total_KBytes_out", elapsedMs);
  return result;
}

Dictionary extractAudioVideoPacketLost(const Dictionary& stat, const Dictionary& previous) {
  Dictionary result;
  putCounter(result, stat, previous, packetsLost, "total_packets_lost_out");
  result["percentPacketsLost"] = number(stat, "fractionLost", 0) * 100;
  return result;
}

Dictionary extractAudioEventsData(const Dictionary& stat, const Dictionary& previous) {
  Dictionary result;
  putCounter(result, stat, previous,
             {"concealmentEvents", "totalConcealmentEvents", "deltaConcealmentEvents"},
             "total_concealment_events");
  putCounter(result, stat, previous,
             {"insertedSamplesForDeceleration", "totalInsertedSamplesForDeceleration",
              "deltaInsertedSamplesForDeceleration"},
             "total_inserted_samples_for_decelaration");
  putCounter(result, stat, previous,
             {"removedSamplesForAcceleration", "totalRemovedSamplesForAcceleration",
              "deltaRemovedSamplesForAcceleration"},
             "total_removed_samples_for_accelaration");
  return result;
}

Dictionary extractVideoSize(const Dictionary& stat) {
  return {{"width", integer(stat, "frameWidth", 0)},
          {"height", integer(stat, "frameHeight", 0)},
          {"framerate", number(stat, "framesPerSecond", 0)}};
}

Dictionary extractQualityLimitation(const Dictionary& stat) {
  const auto* durations = dictionary(stat, "qualityLimitationDurations");
  return {{"reason", text(stat, "qualityLimitationReason", "N/A")},
          {"durations", durations ? *durations : Dictionary()},
          {"resolutionChanges", integer(stat, "qualityLimitationResolutionChanges", 0)}};
}

std::optional<double> extractLastJitter(const Dictionary& stat) {
  const auto seconds = number(stat, "jitter");
  return seconds ? std::optional(*seconds * msInSecond) : std::nullopt;
}

Dictionary extractAudioCodec(const Dictionary& stat) {
  auto format = text(stat, "sdpFmtpLine", "");
  // The line of a codec for redundancy.
  if (format.find("apt=100") != std::string::npos) return {};
  return {{"mime_type", text(stat, "mimeType", "")},
          {"clock_rate", integer(stat, "clockRate", 0)},
          {"channels", integer(stat, "channels", 0)},
          {"sdp_fmtp_line", std::move(format)}};
}

Dictionary extractVideoCodec(const Dictionary& stat) {
  auto mimeType = text(stat, "mimeType", "");
  if (mimeType == "video/rtx") return {};
  return {{"mime_type", std::move(mimeType)}, {"clock_rate", integer(stat, "clockRate", 0)}};
}

}  // namespace kestrova
