#pragma once

#include <kestrova/session/Meeting.h>

#include "MeetingWatcher.h"
#include <string>

namespace kestrova::meet {

/// Media relay between this meeting and others: tells what comes of it, and agrees where it may.
/// Main queue only.
class RelayWatch final : public MeetingEventListener {
public:
  /// \param watcher must outlive the watch
  /// \param accepts whether other meetings may be shown here
  RelayWatch(MeetingWatcher& watcher, bool accepts) : _watcher(watcher), _accepts(accepts) {}

  void onMediaRelayRequestReceived(const std::string& participantId, const std::string& meetingId,
                                   const std::string& displayName, Action accept,
                                   Action reject) override;
  void onMediaRelayRequestResponse(const std::string& decision, const std::string& decidedBy,
                                   const std::string& meetingId) override;
  void onMediaRelayStarted(const std::string& meetingId) override;
  void onMediaRelayStopped(const std::string& meetingId) override;
  void onMediaRelayError(const std::string& meetingId, const std::string& error) override;

private:
  MeetingWatcher& _watcher;
  const bool _accepts;
};

}  // namespace kestrova::meet
