#include <kestrova/monitoring/StatsExtraction.h>
#include <kestrova/monitoring/StreamMeter.h>

#include <algorithm>
#include <optional>
#include <utility>

namespace kestrova {
namespace {

constexpr double milli = 1000;  // of a second

void keepWorst(std::optional<double>& worst, std::optional<double> value) {
  if (value) worst = std::max(worst.value_or(*value), *value);
}

std::optional<double> inMs(std::optional<double> seconds) {
  return seconds ? std::optional(*seconds * milli) : std::nullopt;
}

double perSecond(double amount, double elapsedMs) {
  return elapsedMs > 0 ? amount * milli / elapsedMs : 0;
}

void takeSize(StreamMetrics& metrics, const Dictionary& stat) {
  const auto width = static_cast<int>(integer(stat, "frameWidth", 0));
  if (width <= metrics.width) return;
  metrics.width = width;
  metrics.height = static_cast<int>(integer(stat, "frameHeight", 0));
}

std::optional<double> connectivityRoundTripMs(const List& raw) {
  const auto* pair = selectedCandidatePair(raw);
  return pair ? inMs(number(*pair, "currentRoundTripTime")) : std::nullopt;
}

bool isStream(std::string_view type) {
  return type == "inbound-rtp" || type == "outbound-rtp";
}

/// When the engine made the list.
double stampOf(const List& raw, std::int64_t now) {
  for (const auto& value : raw)
    if (isStream(textView(asDictionary(value), "type")))
      return number(asDictionary(value), "timestamp", static_cast<double>(now));
  return static_cast<double>(now);
}

}  // namespace

StreamMeter::Measured StreamMeter::measure(const List& raw, std::int64_t now) {
  Entries byId;
  byId.reserve(raw.size());
  for (const auto& value : raw)
    if (const auto id = textView(asDictionary(value), "id"); !id.empty())
      byId.emplace(id, &asDictionary(value));
  const auto named = [&](const Dictionary& stat, std::string_view key) -> const Dictionary* {
    const auto found = byId.find(textView(stat, key));
    return found == byId.end() ? nullptr : found->second;
  };

  const double stamp = stampOf(raw, now);
  const double elapsedMs = stamp - _measuredAt.value_or(stamp);
  const auto roundTripMs = connectivityRoundTripMs(raw);
  Measured measured;
  _next.clear();
  for (const auto& value : raw) {
    const auto& stat = asDictionary(value);
    const auto type = textView(stat, "type");
    if (!isStream(type)) continue;
    const bool isReceived = type == "inbound-rtp";
    const auto* source = named(stat, isReceived ? "trackId" : "mediaSourceId");
    auto trackId = text(stat, "trackIdentifier");
    if (!trackId && source) trackId = text(*source, "trackIdentifier");
    if (!trackId) continue;

    auto& metrics = measured[*trackId];
    metrics.timestampMs = now;
    if (isReceived) {
      addReceived(metrics, stat, elapsedMs);
      metrics.roundTripMs = roundTripMs;
    } else {
      addSent(metrics, stat, named(stat, "remoteId"), elapsedMs);
      if (!metrics.roundTripMs) metrics.roundTripMs = roundTripMs;
    }
    if (!metrics.audioLevel && source) metrics.audioLevel = number(*source, "audioLevel");
    if (const auto* codec = named(stat, "codecId")) metrics.codec = text(*codec, "mimeType", "");
  }
  _totals.swap(_next);
  if (!std::exchange(_measuredAt, stamp)) return {};
  _last = measured;
  return measured;
}

StreamMeter::Measured StreamMeter::rest(std::int64_t now) {
  for (auto& [trackId, metrics] : _last)
    metrics = {.timestampMs = now,
               .width = metrics.width,
               .height = metrics.height,
               .freezes = metrics.freezes,
               .freezeSeconds = metrics.freezeSeconds,
               .codec = metrics.codec};
  return _last;
}

void StreamMeter::reset() {
  _measuredAt.reset();
  _last.clear();
  _totals.clear();
}

StreamMeter::Totals StreamMeter::growth(const Dictionary& stat, Totals now) {
  const auto ssrc = integer(stat, "ssrc", 0);
  const auto before = _totals[ssrc];
  _next[ssrc] = now;
  const auto grown = [](double present, double past) { return std::max(0.0, present - past); };
  return {.bytes = grown(now.bytes, before.bytes),
          .frames = grown(now.frames, before.frames),
          .packets = grown(now.packets, before.packets),
          .packetsLost = grown(now.packetsLost, before.packetsLost)};
}

void StreamMeter::addReceived(StreamMetrics& metrics, const Dictionary& stat, double elapsedMs) {
  const auto grown = growth(stat, {.bytes = number(stat, "bytesReceived", 0),
                                   .frames = number(stat, "framesDecoded", 0),
                                   .packets = number(stat, "packetsReceived", 0),
                                   .packetsLost = number(stat, "packetsLost", 0)});
  metrics.bitrateKbps += perSecond(grown.bytes * 8 / 1000, elapsedMs);
  metrics.framesPerSecond = std::max(metrics.framesPerSecond, perSecond(grown.frames, elapsedMs));
  takeSize(metrics, stat);
  const double expected = grown.packets + grown.packetsLost;
  if (expected > 0) keepWorst(metrics.packetLossPercent, grown.packetsLost * 100 / expected);
  keepWorst(metrics.jitterMs, inMs(number(stat, "jitter")));
  metrics.audioLevel = number(stat, "audioLevel");
  metrics.freezes = integer(stat, "freezeCount", 0);
  metrics.freezeSeconds = number(stat, "totalFreezesDuration", 0);
}

void StreamMeter::addSent(StreamMetrics& metrics, const Dictionary& stat, const Dictionary* remote,
                          double elapsedMs) {
  const auto grown = growth(
      stat, {.bytes = number(stat, "bytesSent", 0), .frames = number(stat, "framesSent", 0)});
  metrics.bitrateKbps += perSecond(grown.bytes * 8 / 1000, elapsedMs);
  metrics.framesPerSecond = std::max(metrics.framesPerSecond, perSecond(grown.frames, elapsedMs));
  if (grown.bytes > 0) takeSize(metrics, stat);
  if (!remote) return;
  if (number(*remote, "roundTripTimeMeasurements", 1) > 0)
    keepWorst(metrics.roundTripMs, inMs(number(*remote, "roundTripTime")));
  keepWorst(metrics.jitterMs, inMs(number(*remote, "jitter")));
  if (const auto fraction = number(*remote, "fractionLost"))
    keepWorst(metrics.packetLossPercent, *fraction * 100);
}

}  // namespace kestrova
