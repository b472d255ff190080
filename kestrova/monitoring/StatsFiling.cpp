#include <kestrova/monitoring/StatsFiling.h>

#include <algorithm>
#include <utility>

namespace kestrova {
namespace {

/// Of every so many reports one is kept for the service.
constexpr int keptReport = 5;
/// A meeting may last for days, and its service never ask. This is three hours of one stream, and
/// twenty minutes of ten.
constexpr std::size_t mostKept = 1200;

void append(List& kept, Dictionary entry) {
  kept.emplace_back(std::move(entry));
  // In one go now and then: the front of a list is dear to take away.
  if (kept.size() > mostKept + mostKept / 4) kept.erase(kept.begin(), kept.end() - mostKept);
}

/// The entries of that track.
template <class Take>
void forEachEntry(const Dictionary& report, const KnownTrack& track, Take take) {
  const bool isSound = track.kind == "audio" || track.kind == "shareAudio";
  const auto* entries = list(report, isSound ? "audio" : "video");
  if (!entries) return;
  for (const auto& entry : *entries)
    if (text(asDictionary(entry), "trackId") == track.trackId) take(asDictionary(entry));
}

}  // namespace

List& StatsFiling::listOf(const char* section, std::string_view kind) {
  auto& found = _stats[section];
  if (kind.empty()) return found.is_array() ? found.get_array() : found.emplace_array();
  auto& byKind = found.is_object() ? found.get_object() : found.emplace_object();
  auto& entries = byKind[kind];
  return entries.is_array() ? entries.get_array() : entries.emplace_array();
}

void StatsFiling::fileSent(const Dictionary& report, const std::vector<KnownTrack>& tracks) {
  _latestSent.clear();
  const bool keeps = ++_sendReportCounter % keptReport == 0;
  for (const auto& track : tracks)
    forEachEntry(report, track, [&](const Dictionary& entry) {
      _latestSent[{track.peerId, track.type}].push_back(entry);
      if (keeps) append(listOf("producerStats", track.kind), entry);
    });
}

List StatsFiling::fileReceived(const Dictionary& report, const std::vector<KnownTrack>& tracks) {
  _latestReceived.clear();
  const bool keeps = ++_receiveReportCounter % keptReport == 0;
  List entries;
  for (const auto& track : tracks)
    forEachEntry(report, track, [&](Dictionary entry) {
      entry["peerId"] = track.peerId;
      entry["kind"] = track.kind;
      if (keeps) append(listOf("consumerStats", ""), entry);
      _latestReceived[{track.peerId, track.type}].push_back(entry);
      entries.push_back(std::move(entry));
    });
  return entries;
}

std::optional<List> StatsFiling::latest(const std::string& peerId, MediaType type) const {
  for (const auto* side : {&_latestSent, &_latestReceived})
    if (const auto found = side->find({peerId, type}); found != side->end()) return found->second;
  return std::nullopt;
}

Dictionary StatsFiling::statsData(std::int64_t now, ProcessUsage usage) {
  append(
      listOf("deviceStats", ""),
      {{"timestamp", now}, {"cpuUsage", usage.cpuPercent}, {"memoryUsage", usage.memoryMegabytes}});
  return _stats;
}

}  // namespace kestrova
