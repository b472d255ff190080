#include <kestrova/monitoring/LinkConditions.h>
#include <kestrova/tracing/Trace.h>

#include <algorithm>
#include <cmath>
#include <utility>

namespace kestrova {
namespace {

constexpr double congestionBeginsMs = 50.0;
constexpr double congestionEndsMs = 30.0;
constexpr double weightOfTheOld = 0.9;
constexpr double weightOfTheNew = 0.1;
constexpr double patienceMs = 5000.0;

using Limitation = LinkConditions::Limitation;

/// Turns a flag over. \returns the news of it
Limitation turn(bool& flag, QualityLimitationType type) {
  flag = !flag;
  return {type, flag ? QualityLimitationState::DETECTED : QualityLimitationState::RESOLVED};
}

}  // namespace

// ---- What is sent ------------------------------------------------------------------------------

std::vector<Limitation> LinkConditions::observeStatsOfSendTransport(const List& raw) {
  std::vector<Limitation> news;
  for (const auto& value : raw) {
    const auto& stat = asDictionary(value);
    if (textView(stat, "type") == "outbound-rtp")
      _outbTraces[text(stat, "id", "")] = text(stat, "qualityLimitationReason", "");
  }
  // Between two reports of the other side nothing is judged.
  const auto average = averageRoundTrip(raw);
  if (!average) return news;

  const double ewma = _ewmaRttInMs.value_or(*average);
  const bool bandwidth = isLimitedBy("bandwidth");
  judgeCongestion(news, *average, ewma, bandwidth);
  if (bandwidth != _bandwidthLimited)
    news.push_back(turn(_bandwidthLimited, QualityLimitationType::BANDWIDTH));
  _ewmaRttInMs = weightOfTheOld * ewma + weightOfTheNew * *average;
  if (isLimitedBy("cpu") != _cpuLimited)
    news.push_back(turn(_cpuLimited, QualityLimitationType::CPU));
  return news;
}

void LinkConditions::Limitation::trace() const {
  const bool detected = state == QualityLimitationState::DETECTED;
  switch (type) {
    case QualityLimitationType::CPU:
      return kestrova::trace(detected ? "CPU Limitation detected" : "CPU Limitation resolved");
    case QualityLimitationType::BANDWIDTH:
      return kestrova::trace(detected ? "Bandwidth Limitation detected"
                                      : "Bandwidth Limitation resolved");
    case QualityLimitationType::CONGESTION:
      return kestrova::trace(
          detected ? "Network Congestion detected, the network is bandwidth limited and the round "
                     "trip time is increasing."
                   : "Network Congestion resolved, the round trip time is back to normal.",
          {{"avgRoundTripTimeInMs", avgRoundTripTimeInMs.value_or(0)},
           {"ewmaRttInMs", ewmaRttInMs.value_or(0)}});
  }
}

std::optional<double> LinkConditions::averageRoundTrip(const List& raw) {
  double sum = 0;
  int samples = 0;
  for (const auto& value : raw) {
    const auto& stat = asDictionary(value);
    if (textView(stat, "type") != "remote-inbound-rtp") continue;
    const auto total = number(stat, "totalRoundTripTime");
    const auto measurements = number(stat, "roundTripTimeMeasurements");
    if (!total || !measurements) continue;
    auto& before = _remoteInbTraces[text(stat, "id", "")];
    const double grownMeasurements = *measurements - before.roundTripTimeMeasurements;
    const double grownTotal = *total - before.totalRoundTripTime;
    if (grownMeasurements <= 0 || grownTotal <= 0) continue;
    before = {*total, *measurements};
    sum += grownTotal / grownMeasurements * 1000.0;
    ++samples;
  }
  if (samples == 0 || !std::isfinite(sum)) return std::nullopt;
  return sum / samples;
}

bool LinkConditions::isLimitedBy(std::string_view reason) const {
  return std::any_of(_outbTraces.begin(), _outbTraces.end(),
                     [&](const auto& trace) { return trace.second == reason; });
}

/// Only an uplink that bandwidth limits becomes congested; the round trip alone ends it.
void LinkConditions::judgeCongestion(std::vector<Limitation>& news, double average, double ewma,
                                     bool bandwidth) {
  const double rise = average - ewma;
  const bool begins = !_congested && bandwidth && rise > congestionBeginsMs;
  const bool ends = _congested && rise < congestionEndsMs;
  if (!begins && !ends) return;
  auto turned = turn(_congested, QualityLimitationType::CONGESTION);
  turned.avgRoundTripTimeInMs = average;
  turned.ewmaRttInMs = ewma;
  news.push_back(turned);
}

// ---- What is received --------------------------------------------------------------------------

std::vector<LinkConditions::StreamNews> LinkConditions::observeStatsOfRecvTransport(
    const List& entries, double now) {
  std::vector<StreamNews> news;
  for (const auto& value : entries) {
    const auto& entry = asDictionary(value);
    const auto kind = textView(entry, "kind");
    if (kind == "audio" || kind == "shareAudio") continue;
    const auto trackId = text(entry, "trackId", "");
    const auto peerId = text(entry, "peerId", "");
    if (isStuck(trackId, entry, now)) news.push_back({StreamState::STUCK, peerId, trackId});
    if (const auto count = integer(entry, "freezeCount"))
      if (const auto state = judgeFreeze(trackId, *count, now))
        news.push_back({*state, peerId, trackId});
  }
  return news;
}

/// The mark is renewed while it is young: only looks that lie far apart find a stream stuck.
bool LinkConditions::isStuck(const std::string& trackId, const Dictionary& entry, double now) {
  if (number(entry, "bitrate", 0) > 0) {
    _traces.erase(trackId);
    return false;
  }
  const auto detected = _traces.find(trackId);
  if (detected != _traces.end() && detected->second + patienceMs < now) return true;
  _traces[trackId] = now;
  return false;
}

std::optional<StreamState> LinkConditions::judgeFreeze(const std::string& trackId,
                                                       std::int64_t count, double now) {
  const auto [known, isNew] = _freezeTraces.try_emplace(trackId, count);
  const auto before = std::exchange(known->second, count);
  if (isNew) return std::nullopt;
  if (before < count) {
    _freezeTimestamps[trackId] = now;
    _freezeResolved.erase(trackId);
    return StreamState::FREEZE_DETECTED;
  }
  const auto frozen = _freezeTimestamps.find(trackId);
  const bool isOver = frozen != _freezeTimestamps.end() && !_freezeResolved.contains(trackId) &&
                      now - frozen->second > patienceMs;
  if (!isOver) return std::nullopt;
  _freezeResolved.insert(trackId);
  return StreamState::FREEZE_RESOLVED;
}

}  // namespace kestrova
