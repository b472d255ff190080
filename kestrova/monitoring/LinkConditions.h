#pragma once

#include <kestrova/media/MediaType.h>
#include <kestrova/model/LinkCondition.h>
#include <kestrova/platform/Values.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kestrova {

/// Judges, look by look, whether what is sent is held back and whether what is received stands
/// still. Keeps its state for as long as the meeting lasts, over drops, too. Traces nothing by
/// itself: it is asked with a queue held, and a trace calls the application. One thread at a time.
class LinkConditions {
public:
  struct Limitation {
    QualityLimitationType type;
    QualityLimitationState state;
    /// Of congestion: the present round trip, and its average so far.
    std::optional<double> avgRoundTripTimeInMs{};
    std::optional<double> ewmaRttInMs{};
    void trace() const;
  };
  struct StreamNews {
    StreamState state;
    std::string peerId;
    std::string trackId;
    bool operator==(const StreamNews&) const = default;
  };

  /// The send transport's statistics. \returns what began or ended, in order
  std::vector<Limitation> observeStatsOfSendTransport(const List& raw);
  /// The entries of what is received, with "trackId", "peerId" and "kind".
  /// \param now in milliseconds since 1970
  std::vector<StreamNews> observeStatsOfRecvTransport(const List& entries, double now);

private:
  struct RoundTripTotals {
    double totalRoundTripTime = 0;
    double roundTripTimeMeasurements = 0;
  };
  /// The mean of this look's new measurements; nothing when there are none.
  std::optional<double> averageRoundTrip(const List& raw);
  void judgeCongestion(std::vector<Limitation>& news, double average, double ewma, bool bandwidth);
  bool isLimitedBy(std::string_view reason) const;
  bool isStuck(const std::string& trackId, const Dictionary& entry, double now);
  std::optional<StreamState> judgeFreeze(const std::string& trackId, std::int64_t count,
                                         double now);

  std::map<std::string, double> _traces;  // when a track was seen without bitrate
  std::map<std::string, std::int64_t> _freezeTraces;
  std::map<std::string, double> _freezeTimestamps;
  std::set<std::string> _freezeResolved;
  std::map<std::string, std::string> _outbTraces;  // reasons, by the id of the entry
  std::map<std::string, RoundTripTotals> _remoteInbTraces;
  std::optional<double> _ewmaRttInMs;
  bool _congested = false;
  bool _bandwidthLimited = false;
  bool _cpuLimited = false;
};

}  // namespace kestrova
