#pragma once

#include <kestrova/media/MediaType.h>
#include <kestrova/platform/ProcessUsage.h>
#include <kestrova/platform/Values.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

/// What is known of a track beside its statistics.
struct KnownTrack {
  std::string trackId;
  std::string streamId;
  std::string peerId;
  MediaType type = MediaType::audio;
  std::string kind;  ///< "audio", "video", "share" or "shareAudio"
};

/// Keeps the reports: the newest of each stream for whoever asks, and one in five for the service.
/// One thread at a time.
class StatsFiling {
public:
  void fileSent(const Dictionary& report, const std::vector<KnownTrack>& tracks);
  /// \returns the entries, each with "peerId" and "kind"
  List fileReceived(const Dictionary& report, const std::vector<KnownTrack>& tracks);
  /// The transport is gone, and with it what was known of its streams.
  void forgetSent() { _latestSent.clear(); }
  void forgetReceived() { _latestReceived.clear(); }

  /// The newest entries of a participant's streams of that kind; nothing when there are none.
  std::optional<List> latest(const std::string& peerId, MediaType type) const;
  /// All that was kept, and how the process does now. \param now in milliseconds since 1970
  Dictionary statsData(std::int64_t now, ProcessUsage usage);

private:
  using Latest = std::map<std::pair<std::string, MediaType>, List>;

  List& listOf(const char* section, std::string_view kind);
  static List& listOf(Latest& latest, const KnownTrack& track,
                      const boost::json::storage_ptr& storage);

  Latest _latestSent;
  Latest _latestReceived;
  Dictionary _stats;
  int _sendReportCounter = 0;
  int _receiveReportCounter = 0;
};

}  // namespace kestrova
