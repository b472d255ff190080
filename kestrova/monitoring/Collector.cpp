#include <kestrova/monitoring/Collector.h>
#include <kestrova/platform/Platform.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace kestrova {
namespace {

constexpr std::size_t mostReports = 60;
constexpr const char* kinds[] = {"audio", "video"};

const Dictionary& under(const Dictionary& container, std::string_view key) {
  static const Dictionary empty;
  const auto* found = dictionary(container, key);
  return found ? *found : empty;
}

Dictionary getDefaultSSRCMetric(std::string_view ssrc, std::string_view kind,
                                std::string_view reportType) {
  return {{"ssrc", ssrc}, {"kind", kind}, {"direction", reportType}};
}

/// The stream's entry in a report; nothing when it has none of that direction.
Dictionary* getSSRCDataFromBunch(std::string_view ssrc, Dictionary& bunch,
                                 std::string_view direction) {
  for (const char* kind : kinds) {
    auto* streams = bunch.if_contains(kind);
    auto* entry =
        streams && streams->is_object() ? streams->get_object().if_contains(ssrc) : nullptr;
    if (entry && entry->is_object() && textView(entry->get_object(), "direction") == direction)
      return &entry->get_object();
  }
  return nullptr;
}

/// Copies what `from` has under the first names into `to` under the second.
using Renames = std::initializer_list<std::pair<std::string_view, std::string_view>>;
void put(Dictionary& to, const Dictionary& from, Renames names) {
  for (const auto& [found, wanted] : names)
    if (const auto* value = from.if_contains(found)) to[wanted] = *value;
}

}  // namespace

struct Collector::Pass {
  using Names = std::multimap<std::string_view, std::string>;
  using Entries = std::vector<std::pair<StateType, const Dictionary*>>;

  Dictionary& report;  // begins as the one before, so that it has what differences are taken to
  double elapsedMs = 0;
  Entries entries;  // those of the list that are read, by what they are
  const Dictionary* selectedPair = nullptr;
  std::set<std::string> active;  // SSRCs that this list has
  Names byTrack;                 // SSRCs by the id of their track's entry
  Names bySource;                // and by that of their media source's

  Dictionary& network() { return report["network"].as_object(); }
  Dictionary& data() { return report["data"].as_object(); }

  /// The entry of the stream that `stat` is about, and which it is; nothing when it doesn't say.
  Dictionary* stream(const Dictionary& stat, std::string_view direction, std::string& ssrc) {
    const auto number = integer(stat, "ssrc");
    auto kind = textView(stat, "kind");
    if (kind.empty()) kind = textView(stat, "mediaType");
    if (!number || (kind != "audio" && kind != "video")) return nullptr;
    ssrc = std::to_string(*number);
    active.insert(ssrc);
    if (auto* known = getSSRCDataFromBunch(ssrc, report, direction)) return known;
    auto& entry = report[kind].as_object()[ssrc];
    entry = getDefaultSSRCMetric(ssrc, kind, direction);
    return &entry.get_object();
  }
  void note(Names& names, const Dictionary& stat, std::string_view key, const std::string& ssrc) {
    if (const auto name = textView(stat, key); !name.empty()) names.emplace(name, ssrc);
  }
};

namespace {

void pruneStaleSSRCs(Dictionary& report, const std::set<std::string>& active) {
  const auto isStale = [&](const auto& stream) {
    return !active.contains(std::string(stream.key()));
  };
  for (const char* kind : kinds) {
    auto& streams = report[kind].as_object();
    if (std::none_of(streams.begin(), streams.end(), isStale)) continue;
    Dictionary kept(streams.storage());
    for (auto& stream : streams)
      if (!isStale(stream)) kept.emplace(stream.key(), std::move(stream.value()));
    streams = std::move(kept);
  }
}

}  // namespace

Dictionary Collector::collectStats(const List& raw) {
  if (raw.empty()) return {};
  const auto* previous = _statsReports.empty() ? nullptr : &_statsReports.back();
  _statsReports.push_back(analyze(raw, previous, Platform::current()->scheduler->wallClockMs()));
  if (_statsReports.size() > mostReports) _statsReports.pop_front();
  return formatCollectedStats(_statsReports.back());
}

Dictionary Collector::getDefaultMetrics(const Dictionary* previousStats) const {
  static const Dictionary nothing;
  Dictionary report(
      {{"name", _identity.name}, {"roomId", _identity.roomId}, {"peerId", _identity.peerId}},
      storageOfOneUse());
  for (const char* key : {"audio", "video", "network", "data"})
    report[key] = under(previousStats ? *previousStats : nothing, key);
  return report;
}

Dictionary Collector::analyze(const List& raw, const Dictionary* previousReport,
                              std::int64_t timestamp) {
  auto report = getDefaultMetrics(previousReport);
  report["timestamp"] = timestamp;
  report["count"] = 1 + (previousReport ? integer(*previousReport, "count", 0) : 0);
  Pass pass{.report = report, .selectedPair = selectedCandidatePair(raw)};
  if (previousReport)
    pass.elapsedMs =
        static_cast<double>(timestamp - integer(*previousReport, "timestamp", timestamp));
  for (const auto& stat : raw)
    if (const auto type = stateTypeFrom(textView(asDictionary(stat), "type")))
      pass.entries.emplace_back(*type, &asDictionary(stat));
  readCodecs(pass);
  for (const auto& [type, stat] : pass.entries) extract(pass, type, *stat);
  // Behind the streams that they name.
  for (const auto& [type, stat] : pass.entries) nameTracks(pass, type, *stat);
  pruneStaleSSRCs(report, pass.active);
  return report;
}

void Collector::readCodecs(const Pass& pass) {
  for (const auto& [type, stat] : pass.entries) {
    if (type != StateType::codec) continue;
    const bool isAudio = textView(*stat, "mimeType").starts_with("audio/");
    auto codec = isAudio ? extractAudioCodec(*stat) : extractVideoCodec(*stat);
    if (auto id = text(*stat, "id"); id && !codec.empty()) _codecMapping[*id] = std::move(codec);
  }
}

const Dictionary* Collector::codec(std::string_view id) const {
  const auto found = _codecMapping.find(id);
  return found == _codecMapping.end() ? nullptr : &found->second;
}

void Collector::extract(Pass& pass, StateType type, const Dictionary& stat) {
  switch (type) {
    case StateType::candidatePair:
      if (&stat == pass.selectedPair) extractNetwork(pass, stat);
      break;
    case StateType::localCandidate:
      break;
    case StateType::inboundRtp:
      extractInbound(pass, stat);
      break;
    case StateType::outboundRtp:
      extractOutbound(pass, stat);
      break;
    case StateType::remoteInboundRtp:
      extractRemote(pass, stat, true);
      break;
    case StateType::remoteOutboundRtp:
      extractRemote(pass, stat, false);
      break;
    case StateType::codec:
    case StateType::mediaSource:
    case StateType::remoteCandidate:
    case StateType::track:
      break;
  }
}

void Collector::extractNetwork(Pass& pass, const Dictionary& pair) {
  put(pass.data(), extractBytesSentReceived(pair, pass.data(), pass.elapsedMs),
      {{"totalKBytesReceived", "total_KBytes_received"},
       {"totalKBytesSent", "total_KBytes_sent"},
       {"deltaKBytesReceived", "delta_KBytes_received"},
       {"deltaKBytesSent", "delta_KBytes_sent"},
       {"kbsReceived", "kbs_speed_received"},
       {"kbsSent", "kbs_speed_sent"}});
  auto& network = pass.network();
  for (const char* key :
       {"infrastructure", "local_candidate_protocol", "local_candidate_relay_protocol"})
    network.erase(key);  // its candidate says them anew
  put(network, pair, {{"localCandidateId", "local_candidate_id"}});
  put(network, extractRTTBasedOnSTUNConnectivityCheck(pair, network),
      {{"totalRTT", "total_rtt_connectivity_ms"},
       {"totalRTTMeasurements", "total_rtt_connectivity_measure"},
       {"rtt", "delta_rtt_connectivity_ms"}});
  put(network, extractAvailableBandwidth(pair),
      {{"kbsIncomingBandwidth", "kbs_incoming_bandwidth"},
       {"kbsOutgoingBandwidth", "kbs_outgoing_bandwidth"}});
}

void Collector::extractInbound(Pass& pass, const Dictionary& stat) {
  std::string ssrc;
  auto* entry = pass.stream(stat, "inbound", ssrc);
  if (!entry) return;
  pass.note(pass.byTrack, stat, "trackId", ssrc);
  put(*entry, extractAudioVideoPacketReceived(stat, *entry, pass.elapsedMs),
      {{"totalPacketsReceived", "total_packets_in"},
       {"deltaPacketsReceived", "delta_packets_in"},
       {"totalPacketsLost", "total_packets_lost_in"},
       {"deltaPacketsLost", "delta_packets_lost_in"},
       {"percentPacketsLost", "percent_packets_lost_in"},
       {"totalKBytesReceived", "total_KBytes_in"},
       {"deltaKBytesReceived", "delta_KBytes_in"},
       {"kbsReceived", "delta_kbs_in"}});
  if (const auto jitter = extractLastJitter(stat)) (*entry)["delta_jitter_ms_in"] = *jitter;
  put(*entry, stat,
      {{"trackId", "track_in"}, {"trackIdentifier", "track_id_in"}, {"codecId", "codec_id_in"}});
  if (const auto* used = codec(textView(stat, "codecId"))) (*entry)["codec_in"] = *used;
  if (textView(*entry, "kind") == "audio") {
    put(*entry, extractAudioEventsData(stat, *entry),
        {{"totalConcealmentEvents", "total_concealment_events"},
         {"deltaConcealmentEvents", "delta_concealment_events"},
         {"totalInsertedSamplesForDeceleration", "total_inserted_samples_for_decelaration"},
         {"deltaInsertedSamplesForDeceleration", "delta_inserted_samples_for_decelaration"},
         {"totalRemovedSamplesForAcceleration", "total_removed_samples_for_accelaration"},
         {"deltaRemovedSamplesForAcceleration", "delta_removed_samples_for_accelaration"}});
    return;
  }
  (*entry)["size_in"] = extractVideoSize(stat);
  put(*entry, stat,
      {{"pauseCount", "pause_count"},
       {"totalPausesDuration", "total_pauses_duration"},
       {"freezeCount", "freeze_count"},
       {"totalFreezesDuration", "total_freezes_duration"}});
}

void Collector::extractOutbound(Pass& pass, const Dictionary& stat) {
  std::string ssrc;
  auto* entry = pass.stream(stat, "outbound", ssrc);
  if (!entry) return;
  pass.note(pass.byTrack, stat, "trackId", ssrc);
  pass.note(pass.bySource, stat, "mediaSourceId", ssrc);
  put(*entry, extractAudioVideoPacketSent(stat, *entry, pass.elapsedMs),
      {{"totalPacketsSent", "total_packets_out"},
       {"deltaPacketsSent", "delta_packets_out"},
       {"totalKBytesSent", "total_KBytes_out"},
       {"deltaKBytesSent", "delta_KBytes_out"},
       {"kbsSent", "delta_kbs_out"}});
  put(*entry, stat, {{"trackId", "track_out"}, {"codecId", "codec_id_out"}});
  if (const auto* used = codec(textView(stat, "codecId"))) (*entry)["codec_out"] = *used;
  if (textView(*entry, "kind") != "video") return;
  (*entry)["size_out"] = extractVideoSize(stat);
  (*entry)["limitation_out"] = extractQualityLimitation(stat);
}

/// What the other side reports: of what is sent here, or of what it sends.
void Collector::extractRemote(Pass& pass, const Dictionary& stat, bool isOutbound) {
  std::string ssrc;
  auto* entry = pass.stream(stat, isOutbound ? "outbound" : "inbound", ssrc);
  if (!entry) return;
  if (!isOutbound) {
    if (const auto seconds = number(stat, "roundTripTime"))
      (*entry)["delta_rtt_ms_in"] = *seconds * 1000;
    return;
  }
  put(*entry, extractRTTBasedOnRTCP(stat, *entry),
      {{"totalRTT", "total_rtt_ms_out"},
       {"totalRTTMeasurements", "total_rtt_measure_out"},
       {"rtt", "delta_rtt_ms_out"}});
  if (const auto jitter = extractLastJitter(stat)) (*entry)["delta_jitter_ms_out"] = *jitter;
  put(*entry, extractAudioVideoPacketLost(stat, *entry),
      {{"totalPacketsLost", "total_packets_lost_out"},
       {"deltaPacketsLost", "delta_packets_lost_out"},
       {"percentPacketsLost", "percent_packets_lost_out"}});
}

/// Which track a stream belongs to is said by other entries, and so is the network's kind.
void Collector::nameTracks(Pass& pass, StateType type, const Dictionary& stat) {
  const auto id = textView(stat, "id");
  if (type == StateType::localCandidate) {
    if (id.empty() || textView(pass.network(), "local_candidate_id") != id) return;
    put(pass.network(), extractRelayProtocolUsed(stat),
        {{"infrastructure", "infrastructure"},
         {"localCandidateProtocol", "local_candidate_protocol"},
         {"localCandidateRelayProtocol", "local_candidate_relay_protocol"}});
    return;
  }
  if (type != StateType::track && type != StateType::mediaSource) return;
  const auto* track = stat.if_contains("trackIdentifier");
  if (!track || !track->is_string()) return;
  const auto& names = type == StateType::track ? pass.byTrack : pass.bySource;
  const auto [begin, end] = names.equal_range(id);
  for (auto named = begin; named != end; ++named) {
    const auto& ssrc = named->second;
    if (auto* sent = getSSRCDataFromBunch(ssrc, pass.report, "outbound"))
      (*sent)["track_id_out"] = *track;
    else if (auto* received = getSSRCDataFromBunch(ssrc, pass.report, "inbound"))
      (*received)["track_id_in"] = *track;
  }
}

}  // namespace kestrova
