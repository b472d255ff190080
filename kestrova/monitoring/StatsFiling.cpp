#include <kestrova/monitoring/StatsFiling.h>

#include <algorithm>
#include <utility>

namespace kestrova {
namespace {

/// Of every so many reports one is kept for the service.
constexpr int keptReport = 5;
/// A meeting may last for days, and all that is kept travels in one answer, for which a service has
/// a limit, a megabyte by default: these are some 600 kB.
constexpr std::size_t mostOfAKindSent = 250;
constexpr std::size_t mostReceived = 500;
constexpr std::size_t mostOfTheDevice = 500;

void append(List& kept, Dictionary entry, std::size_t most) {
  kept.emplace_back(std::move(entry));
  // In one go now and then: the front of a list is dear to take away.
  if (kept.size() > most + most / 8) kept.erase(kept.begin(), kept.end() - most);
}

/// The entries of a report by what they are of: "audio" or "video", and the track.
using Index = std::multimap<std::pair<std::string_view, std::string>, const Dictionary*>;

Index indexOf(const Dictionary& report) {
  Index index;
  for (const char* medium : {"audio", "video"})
    if (const auto* entries = list(report, medium))
      for (const auto& entry : *entries)
        index.emplace(std::pair(medium, text(asDictionary(entry), "trackId", "")),
                      &asDictionary(entry));
  return index;
}

template <class Take>
void forEachEntry(const Index& index, const KnownTrack& track, Take take) {
  const bool isSound = track.kind == "audio" || track.kind == "shareAudio";
  const auto [begin, end] =
      index.equal_range({isSound ? std::string_view("audio") : "video", track.trackId});
  for (auto found = begin; found != end; ++found) take(*found->second);
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
  const auto index = indexOf(report);
  for (const auto& track : tracks)
    forEachEntry(index, track, [&](const Dictionary& entry) {
      _latestSent[{track.peerId, track.type}].push_back(entry);
      if (keeps) append(listOf("producerStats", track.kind), entry, mostOfAKindSent);
    });
}

List StatsFiling::fileReceived(const Dictionary& report, const std::vector<KnownTrack>& tracks) {
  _latestReceived.clear();
  const bool keeps = ++_receiveReportCounter % keptReport == 0;
  List entries;
  const auto index = indexOf(report);
  for (const auto& track : tracks)
    forEachEntry(index, track, [&](Dictionary entry) {
      entry["peerId"] = track.peerId;
      entry["kind"] = track.kind;
      if (keeps) append(listOf("consumerStats", ""), entry, mostReceived);
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
      {{"timestamp", now}, {"cpuUsage", usage.cpuPercent}, {"memoryUsage", usage.memoryMegabytes}},
      mostOfTheDevice);
  return _stats;
}

}  // namespace kestrova
