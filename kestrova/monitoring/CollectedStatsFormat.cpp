#include <kestrova/monitoring/Collector.h>

#include <utility>

namespace kestrova {
namespace {

/// What an entry of the flat report is made of: its key, and the stream's in either direction.
struct Row {
  std::string_view key;
  std::string_view inbound;
  std::string_view outbound;
};
constexpr Row common[] = {
    {"trackId", "track_id_in", "track_id_out"},
    {"jitter", "delta_jitter_ms_in", "delta_jitter_ms_out"},
    {"bitrate", "delta_kbs_in", "delta_kbs_out"},
    {"packetsLost", "delta_packets_lost_in", "delta_packets_lost_out"},
    {"totalPackets", "delta_packets_in", "delta_packets_out"},
};
constexpr Row ofAudio[] = {
    {"concealmentEvents", "delta_concealment_events", ""},
    {"removedSampleForAccelaration", "delta_removed_samples_for_accelaration", ""},
    {"insertedSamplesForDecelaration", "delta_inserted_samples_for_decelaration", ""},
};
constexpr Row ofVideo[] = {
    {"size", "size_in", "size_out"},
    {"limitation", "", "limitation_out"},
    {"pauseCount", "pause_count", ""},
    {"freezeCount", "freeze_count", ""},
    {"totalPausesDuration", "total_pauses_duration", ""},
    {"totalFreezesDuration", "total_freezes_duration", ""},
};

/// An entry has no more than these, its network's included.
constexpr std::size_t mostKeys = 15;

template <class Rows>
void put(Dictionary& entry, const Dictionary& stream, const Rows& rows, bool isInbound) {
  for (const Row& row : rows) {
    const auto from = isInbound ? row.inbound : row.outbound;
    if (const auto* value = from.empty() ? nullptr : stream.if_contains(from))
      entry[row.key] = *value;
  }
}

/// Nothing while the kind of network is not known.
std::optional<std::string_view> networkText(const Dictionary& network) {
  const auto infrastructure = integer(network, "infrastructure");
  if (!infrastructure) return std::nullopt;
  switch (static_cast<InfrastructureValue>(*infrastructure)) {
    case InfrastructureValue::ethernet:
      return "ethernet";
    case InfrastructureValue::wifi:
      return "wifi";
    case InfrastructureValue::cellular4g:
      return "cellular4g";
    case InfrastructureValue::cellular5g:
    case InfrastructureValue::cellular:
      return "cellular";
  }
  return std::nullopt;
}

Dictionary entryOf(const Dictionary& stream, const Dictionary& report, bool isAudio,
                   boost::json::storage_ptr storage) {
  static const Dictionary empty;
  const auto* found = dictionary(report, "network");
  const auto& network = found ? *found : empty;
  const bool isInbound = textView(stream, "direction") == "inbound";
  Dictionary entry({{"timestamp", integer(report, "timestamp", 0)},
                    {"direction", isInbound ? "inbound" : "outbound"}},
                   mostKeys, std::move(storage));
  put(entry, stream, common, isInbound);
  if (const auto* codec = dictionary(stream, isInbound ? "codec_in" : "codec_out"))
    entry["codec"] = textView(*codec, "mime_type");
  if (const auto roundTrip = number(network, "delta_rtt_connectivity_ms"))
    entry["rtt"] = *roundTrip;
  if (const auto name = networkText(network)) entry["network"] = *name;
  if (isAudio)
    put(entry, stream, ofAudio, isInbound);
  else
    put(entry, stream, ofVideo, isInbound);
  return entry;
}

}  // namespace

Dictionary Collector::formatCollectedStats(const Dictionary& report) {
  const auto storage = storageOfOneUse();
  Dictionary formatted({{"peerId", text(report, "peerId", "")}, {"name", text(report, "name", "")}},
                       storage);
  for (const char* kind : {"audio", "video"}) {
    auto& entries = formatted[kind].emplace_array();
    const auto* streams = dictionary(report, kind);
    if (!streams) continue;
    entries.reserve(streams->size());
    for (const auto& [ssrc, stream] : *streams)
      entries.push_back(
          entryOf(asDictionary(stream), report, kind == std::string_view("audio"), storage));
  }
  return formatted;
}

}  // namespace kestrova
