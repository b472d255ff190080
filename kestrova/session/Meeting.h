#pragma once

#include <kestrova/session/MeetingEventListener.h>
#include <kestrova/session/Participant.h>
#include <kestrova/signalling/MeetingTypes.h>
#include <kestrova/signalling/Peer.h>
#include <kestrova/signalling/ServiceStates.h>

#include <map>
#include <memory>
#include <optional>
#include <string>

namespace kestrova {

class CustomRTCMediaStream;
class MeetingCore;

/// One session, from the join to its end. Made by `Kestrova::initMeeting`.
///
/// Any thread may call; every operation returns at once, and what comes of it is told to the
/// listeners on the main queue. A meeting that was left, or that failed to join, can't be joined
/// again. Letting go of the last reference closes everything without telling the others why;
/// `leave()` first is the polite way.
class Meeting {
public:
  explicit Meeting(std::shared_ptr<MeetingCore> core);
  ~Meeting();
  Meeting(const Meeting&) = delete;
  Meeting& operator=(const Meeting&) = delete;

  std::string id() const;
  std::shared_ptr<Participant> localParticipant() const;
  /// The remote participants by their id; a copy.
  std::map<std::string, std::shared_ptr<Participant>> participants() const;
  std::map<std::string, ParticipantPinState> pinnedParticipants() const;
  MeetingState meetingState() const;
  std::optional<std::string> activePresenterId() const;
  std::optional<Mode> meetingMode() const;
  PreferredProtocol preferredProtocol() const;
  std::optional<std::string> signalingBaseUrl() const;
  std::optional<HLSUrl> hlsUrls() const;
  HLSState hlsState() const;
  LiveStreamState liveStreamState() const;
  RecordingState recordingState() const;
  TranscriptionState transcriptionState() const;
  std::shared_ptr<CustomRTCMediaStream> customVideoMediaStream() const;
  std::shared_ptr<CustomRTCMediaStream> customAudioMediaStream() const;

  /// Starts the join: `onMeetingStateChanged` tells how the connection fares, `onEntryResponded`
  /// what was decided, and `onMeetingJoined` when it is done. Silently does nothing unless the
  /// meeting is new.
  void join();
  /// Leaves the meeting; the others stay. Works while reconnecting, too.
  void leave();
  /// Asks the service to end the meeting for everybody.
  void end();

  /// Listeners are held weakly.
  void addEventListener(const std::shared_ptr<MeetingEventListener>& listener);
  void removeEventListener(const std::shared_ptr<MeetingEventListener>& listener);
  void removeAllEventListeners();

private:
  const std::shared_ptr<MeetingCore> _core;
};

}  // namespace kestrova
