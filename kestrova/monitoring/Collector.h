#pragma once

#include <kestrova/monitoring/StatsExtraction.h>
#include <kestrova/platform/Values.h>

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <string_view>

namespace kestrova {

/// Makes reports of one transport's statistics: folds each list of the engine's with the report
/// before, and flattens the outcome into what the service reads. One thread at a time.
///
/// The keys, misspelled ones included, are the service's.
class Collector {
public:
  struct Identity {
    std::string probeId;
    std::string roomId;
    std::string name;
    std::string peerId;
  };
  explicit Collector(Identity identity) : _identity(std::move(identity)) {}

  /// The flat report of these statistics, which then count as the ones before. An empty list gives
  /// an empty report and leaves everything as it is.
  Dictionary collectStats(const List& raw);

  /// The nested report: "audio" and "video" by SSRC, "network" and "data", totals and what they
  /// grew by since `previousReport`. `timestamp` in milliseconds since 1970.
  Dictionary analyze(const List& raw, const Dictionary* previousReport, std::int64_t timestamp);
  /// { "peerId", "name", "audio": [...], "video": [...] }, an entry for every stream.
  static Dictionary formatCollectedStats(const Dictionary& report);

  /// The nested reports, newest last, sixty at most.
  const std::deque<Dictionary>& statsReports() const { return _statsReports; }

private:
  /// One pass over one list.
  struct Pass;

  Dictionary getDefaultMetrics(const Dictionary* previousStats) const;
  void readCodecs(const Pass& pass);
  const Dictionary* codec(std::string_view id) const;
  void extract(Pass& pass, StateType type, const Dictionary& stat);
  static void extractNetwork(Pass& pass, const Dictionary& pair);
  void extractInbound(Pass& pass, const Dictionary& stat);
  void extractOutbound(Pass& pass, const Dictionary& stat);
  static void extractRemote(Pass& pass, const Dictionary& stat, bool isOutbound);
  static void nameTracks(Pass& pass, StateType type, const Dictionary& stat);

  const Identity _identity;
  std::deque<Dictionary> _statsReports;
  std::map<std::string, Dictionary, std::less<>> _codecMapping;
};

}  // namespace kestrova
