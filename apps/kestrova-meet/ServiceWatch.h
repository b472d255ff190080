#pragma once

#include <kestrova/session/Meeting.h>

#include "MeetingWatcher.h"
#include "Options.h"
#include <string>
#include <vector>

namespace kestrova::meet {

/// The services of the meeting: tells how each of them fares, starts and stops them. Main queue
/// only.
class ServiceWatch final : public MeetingEventListener {
public:
  /// \param meeting \param watcher must outlive the watch
  ServiceWatch(Meeting& meeting, MeetingWatcher& watcher) : _meeting(meeting), _watcher(watcher) {}

  void start(Service service);
  /// Stops what is starting or started, and starts anything else.
  void toggle(Service service);
  /// What isn't stopped, for people: states in the first line, addresses below.
  std::vector<std::string> lines() const;

  void onRecordingStateChanged(RecordingState state) override;
  void onLivestreamStateChanged(LiveStreamState state) override;
  void onHlsStateChanged(HLSState state, const std::optional<HLSUrl>& urls) override;
  void onTranscriptionStateChanged(TranscriptionState state) override;
  void onTranscriptionText(const TranscriptionText& piece) override;
  void onWhiteboardStarted(const std::string& url) override;
  void onWhiteboardStopped() override;

private:
  struct Row;
  static const Row& rowOf(Service service);
  std::string playbackUrl() const;

  Meeting& _meeting;
  MeetingWatcher& _watcher;
  std::string _whiteboard;  ///< its address, or empty
};

}  // namespace kestrova::meet
