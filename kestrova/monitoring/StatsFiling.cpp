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

void append(List& kept, const Dictionary& entry, std::size_t most) {
  kept.emplace_back(entry);
  // In one go now and then: the front of a list is dear to take away.
  if (kept.size() > most + most / 8) kept.erase(kept.begin(), kept.end() - most);
}

/// The entries of a report by what they are of: "audio" or "video", and the track.
using Index = std::multimap<std::pair<std::string_view, std::string_view>, const Dictionary*>;

Index indexOf(const Dictionary& report) {
  Index index;
  for (const char* medium : {"audio", "video"})
    if (const auto* entries = list(report, medium))
      for (const auto& entry : *entries)
        index.emplace(std::pair(medium, textView(asDictionary(entry), "trackId")),
                      &asDictionary(entry));
  return index;
}

template <class Take>
void forEachEntry(const Index& index, const KnownTrack& track, Take take) {
  const bool isSound = track.kind == "audio" || track.kind == "shareAudio";
  const auto [begin, end] =
      index.equal_range({std::string_view(isSound ? "audio" : "video"), track.trackId});
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

List& StatsFiling::listOf(Latest& latest, const KnownTrack& track,
                          const boost::json::storage_ptr& storage) {
  return latest.try_emplace({track.peerId, track.type}, storage).first->second;
}

void StatsFiling::fileSent(const Dictionary& report, const std::vector<KnownTrack>& tracks) {
  _latestSent.clear();
  const bool keeps = ++_sendReportCounter % keptReport == 0;
  const auto storage = storageOfOneUse();
  const auto index = indexOf(report);
  for (const auto& track : tracks)
    forEachEntry(index, track, [&](const Dictionary& entry) {
      listOf(_latestSent, track, storage).push_back(entry);
      if (keeps) append(listOf("producerStats", track.kind), entry, mostOfAKindSent);
    });
}

List StatsFiling::fileReceived(const Dictionary& report, const std::vector<KnownTrack>& tracks) {
  _latestReceived.clear();
  const bool keeps = ++_receiveReportCounter % keptReport == 0;
  const auto storage = storageOfOneUse();
  List entries(storage);
  const auto index = indexOf(report);
  for (const auto& track : tracks)
    forEachEntry(index, track, [&](const Dictionary& found) {
      auto& entry = entries.emplace_back(found).get_object();
      entry["peerId"] = track.peerId;
      entry["kind"] = track.kind;
      if (keeps) append(listOf("consumerStats", ""), entry, mostReceived);
      listOf(_latestReceived, track, storage).push_back(entry);
    });
  return entries;
}

std::optional<List> StatsFiling::latest(const std::string& peerId, MediaType type) const {
  for (const auto* side : {&_latestSent, &_latestReceived})
    if (const auto found = side->find({peerId, type}); found != side->end())
      return List(found->second, {});  // in memory of its own, since it leaves the queue
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
