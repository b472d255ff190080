#pragma once

#include <kestrova/session/Meeting.h>

#include "MeetingWatcher.h"
#include <string>

namespace kestrova::meet {

/// Which microphone is heard, and whether the telephone rings. Main queue only.
class AudioWatch final : public MeetingEventListener {
public:
  /// \param meeting \param watcher must outlive the watch
  AudioWatch(Meeting& meeting, MeetingWatcher& watcher) : _meeting(meeting), _watcher(watcher) {}

  /// Goes over to the next microphone of the list, the first one after the last.
  void changeToNext();

  void onMicChanged(const std::string& selectedDevice) override;
  void onExternalCallRinging(const std::string& callType) override;
  void onExternalCallAnswered(const std::string& callType) override;
  void onExternalCallRejected(const std::string& callType) override;
  void onExternalCallHangup(const std::string& callType) override;

private:
  void tellCall(const char* event, const std::string& callType);

  Meeting& _meeting;
  MeetingWatcher& _watcher;
  std::string _wished;  // the microphone that was chosen last; empty: none yet
};

/// The cameras and microphones of this machine, for people or as a JSON object.
std::string listDevices(bool asJson);

}  // namespace kestrova::meet
