#pragma once

#include <kestrova/model/AudioDevice.h>
#include <kestrova/model/CharacterTypes.h>
#include <kestrova/model/ListenerHandle.h>
#include <kestrova/model/MeetingEnd.h>
#include <kestrova/model/MeetingTypes.h>
#include <kestrova/model/PinState.h>
#include <kestrova/model/ServiceConfigs.h>
#include <kestrova/model/ServiceStates.h>
#include <kestrova/platform/TaskFwd.h>
#include <kestrova/session/MeetingEventListener.h>
#include <kestrova/session/MeetingEvents.h>
#include <kestrova/session/Participant.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kestrova {

class AICharacter;
class CustomRTCMediaStream;
class KestrovaVideoProcessor;
class MeetingCore;
class PubSub;
class RealtimeStore;

/// One session, from the join to its end. Made by `Kestrova::initMeeting`.
///
/// Any thread may call; every operation returns at once, and what comes of it is told to the
/// listeners on the main queue. A meeting that was left, or that failed to join, can't be joined
/// again. Letting go of the last reference leaves the meeting in every state, also in the middle of
/// a join, and no listener is called any more. A process that ends by `exit` or by returning from
/// `main` leaves its meetings, and waits up to 0.5 s for the goodbyes to be said.
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
  /// Whose stream it is, by the stream's id; nothing when none of the others has it.
  std::shared_ptr<Participant> getParticipant(const std::string& forStream) const;
  /// The AI characters who are in the meeting, by their id; a copy.
  std::map<std::string, std::shared_ptr<AICharacter>> characters() const;
  std::map<std::string, ParticipantPinState> pinnedParticipants() const;
  MeetingState meetingState() const;
  std::optional<std::string> activePresenterId() const;
  std::optional<Mode> meetingMode() const;
  PreferredProtocol preferredProtocol() const;
  std::optional<std::string> signalingBaseUrl() const;
  /// Whether what is sent and received is encrypted end to end.
  bool e2eeEnabled() const;
  std::optional<HLSUrl> hlsUrls() const;
  HLSState hlsState() const;
  LiveStreamState liveStreamState() const;
  RecordingState recordingState() const;
  TranscriptionState transcriptionState() const;
  std::shared_ptr<CustomRTCMediaStream> customVideoMediaStream() const;
  std::shared_ptr<CustomRTCMediaStream> customAudioMediaStream() const;

  /// Starts the join: `onMeetingStateChanged` tells how the connection fares, `onEntryResponded`
  /// what was decided, and `onMeetingJoined` when it is done. Silently does nothing unless the
  /// meeting is new. Others get the microphone and camera from the local participant's
  /// `onStreamEnabled` on, which comes after `onMeetingJoined`.
  void join();
  /// Leaves the meeting; the others stay. Works while reconnecting, too. Refused before the join is
  /// done: to give up a join, let go of the meeting.
  void leave();
  /// Asks the service to end the meeting for everybody. Subscriptions to topics end at once, also
  /// when the service then refuses.
  void end();

  /// The end of this meeting for this participant, which comes once and in every case: left, ended,
  /// removed, not joined, not let in, connection lost, let go of. It comes after the listeners have
  /// heard of it, and after the goodbye has been said (2 s at most), so a program may exit then. Of
  /// "denied" a host may think again while the program keeps the meeting.
  ///
  ///     const MeetingEnd end = co_await meeting->untilOver();
  ///
  /// The operation keeps nothing of the meeting alive. `asFuture` of platform/Future.h makes a
  /// future of it.
  Task<MeetingEnd> untilOver() const;
  /// The same, holding up the calling thread; nothing when it hasn't come in time. Not for a thread
  /// that the library or an adopted event loop needs. \throws std::logic_error on the main queue
  MeetingEnd waitUntilOver() const;
  std::optional<MeetingEnd> waitUntilOver(std::chrono::milliseconds atMost) const;
  /// The same without waiting: nothing while the meeting lasts.
  std::optional<MeetingEnd> over() const;

  // The operations below do nothing before the join, while reconnecting and after the end, but for
  // the error that `onError` reports. A switch to the state that already is, or that is under way,
  // is refused with a line in the trace. Off counts from the moment it is taken: nothing is sent
  // any more, also while the library is about to start the medium of itself. What a drop of the
  // connection interrupts of microphone and camera is carried out by the return.

  /// Publishes the microphone, or the application's own track.
  void unmuteMic(const std::shared_ptr<CustomRTCMediaStream>& customAudioStream = nullptr);
  void muteMic();
  /// Publishes the camera, or the application's own track.
  void enableWebcam(const std::shared_ptr<CustomRTCMediaStream>& customVideoStream = nullptr);
  void disableWebcam();
  /// Shares the screen: starts the program that sends it (see `Kestrova::configureScreenShare`), or
  /// waits for one that is started by hand. Others see it from the local participant's
  /// `onStreamEnabled` on. It ends with `disableScreenShare`, with that program, with the meeting,
  /// and with a mode without sending; a lost connection interrupts it, and the return takes it up.
  void enableScreenShare();
  void disableScreenShare();
  /// From the camera in front to the one in the back, and back; while it is off, for the next time.
  /// With a single camera nothing changes but a line in the trace.
  void switchWebcam();
  /// Has the camera's pictures go through `processor` before anybody sees them; nothing: they go as
  /// they are. It stays until the camera is turned off: set before it is turned on, no picture goes
  /// past it. What the library does of itself (a return, another codec, another mode) leaves it.
  /// An application's own pictures (`VideoFrameSource`) don't go through it.
  void setVideoProcessor(const std::shared_ptr<KestrovaVideoProcessor>& processor);
  /// The microphones of this machine, what is built in first. May wait for the sound server, half a
  /// second at most; none where there is no such server.
  std::vector<AudioDevice> getMics();
  /// Goes over to another microphone, or with "Speaker" to what is built into the machine, and
  /// stays with it. What is published goes on without a gap; while the microphone is off, it is for
  /// the next time. `onMicChanged` tells that it was done; a device that can't be had is a line in
  /// the trace, and nothing changes. The whole process has one microphone. \param selectedDevice a
  /// `deviceName` of `getMics`
  void changeMic(const std::string& selectedDevice);
  /// Changes what this participant sends and receives; `onParticipantModeChanged` tells the others.
  /// Microphone and camera come back as they were wished when the new mode sends. A mode that
  /// already is, and a change that a drop interrupts, end in CHANGE_MODE_FAILED.
  void changeMode(Mode mode);

  /// Asks the service to withhold what the others send, or to send it again. Neither this nor the
  /// adaptive subscription outlasts a lost connection: ask again after the return.
  /// \param kind "audio", "video", "share", or nothing for all of them
  void pauseAllStreams(const std::optional<std::string>& kind = std::nullopt);
  void resumeAllStreams(const std::optional<std::string>& kind = std::nullopt);
  /// Lets the service choose whose streams are sent, and how well, by what matters most.
  void enableAdaptiveSubscription();
  void disableAdaptiveSubscription();

  /// Moves to another meeting over the same connection; `onMeetingJoined` names it when it is done.
  /// What this participant publishes goes on and is not announced to it again. Those who stay see
  /// `onParticipantLeft` with the reason `switchRoom` (1005), and so does this participant of them.
  /// \param token access to that meeting, where this one's doesn't give it
  /// \param mode what the service is told of this participant's mode; it joins there in the mode
  ///   that it has, which `changeMode` changes
  void switchTo(const std::string& meetingId,
                const std::optional<std::string>& token = std::nullopt,
                std::optional<Mode> mode = std::nullopt);

  // The services of the meeting run at the service. Each of these asks for a change and returns;
  // the states change when the service's events arrive (`onRecordingStateChanged` and the like),
  // and a refusal comes through `onError`, with the service's own reason as its cause.

  /// Records the meeting. Does nothing, but for a line in the trace, in a meeting that is encrypted
  /// end to end.
  void startRecording(const RecordingOptions& options = {});
  void stopRecording();
  /// Sends the meeting to these RTMP servers.
  void startLivestream(const std::vector<LivestreamOutput>& outputs,
                       const std::optional<LivestreamConfig>& config = std::nullopt);
  void stopLivestream();
  /// Offers the meeting as an HLS stream; `onHlsStateChanged` brings its addresses, and
  /// HLS_PLAYABLE says when it can be watched.
  void startHLS(const std::optional<HLSConfig>& config = std::nullopt,
                const std::optional<PostTranscriptionConfig>& transcription = std::nullopt);
  void stopHLS();
  /// Writes down what is said; `onTranscriptionText` brings it. Does nothing, but for a line in the
  /// trace, in a meeting that is encrypted end to end.
  void startTranscription(const std::optional<TranscriptionConfig>& config = std::nullopt);
  void stopTranscription();
  /// Opens a whiteboard for everybody; `onWhiteboardStarted` brings its address.
  void startWhiteboard();
  void stopWhiteboard();

  /// Asks another meeting to show and play the people of this one. Its hosts decide;
  /// `onMediaRelayRequestResponse` tells how, and `onMediaRelayStarted` when it runs.
  /// \param token access to that meeting, where this one's doesn't give it
  /// \param kinds of "audio", "video" and "share"; all of them without it
  void requestMediaRelay(const std::string& meetingId,
                         const std::optional<std::string>& token = std::nullopt,
                         const std::optional<std::vector<std::string>>& kinds = std::nullopt);
  /// A host's answer to such a request. The actions of `onMediaRelayRequestReceived` do the same.
  /// \param decision "accepted" or "rejected"
  /// \param peerId who asked \param meetingId from where
  void handleRelayRequestResponse(const std::string& decision, const std::string& peerId,
                                  const std::string& meetingId);
  /// Takes a request back, or ends a relay that runs.
  void stopMediaRelay(const std::string& meetingId);
  /// Withholds one kind of media from a relay that runs, or sends it again: "audio", "video" or
  /// "share". A refusal is only traced.
  void enableRelayMedia(const std::string& meetingId, const std::string& kind);
  void disableRelayMedia(const std::string& meetingId, const std::string& kind);

  /// A character for this meeting, which is not there until its `AICharacter::join`.
  std::shared_ptr<AICharacter> createCharacter(CharacterConfig config);

  /// Topic messages and the shared store of this meeting; see their headers in realtime/. Both are
  /// this meeting's from the join to the end, and their operations are refused outside of it.
  std::shared_ptr<PubSub> pubsub() const;
  std::shared_ptr<RealtimeStore> realtimeStore() const;

  /// Gets nothing when the operation failed; the trace says why. Called on the caller's thread
  /// where nothing was sent, else on a background queue.
  using FileCompletion = std::function<void(const std::optional<std::string>&)>;
  /// Stores a small file with the service. \param completion gets its URL
  /// \param token sent as it stands
  void uploadBase64File(const std::string& base64Data, const std::string& token,
                        const std::string& fileName, FileCompletion completion) const;
  /// Reads such a file. \param completion gets its content in base64
  void fetchBase64File(const std::string& url, const std::string& token,
                       FileCompletion completion) const;

  /// For libraries that wrap this one and name themselves "unity-...": makes them known to the
  /// service. Any other name does nothing.
  void setAttributes(const std::string& name, const std::string& version);
  /// For the same libraries: where and how to log. Empty for anybody else.
  Dictionary getAttributes() const;

  /// Listeners are held weakly: the application keeps them for as long as they shall hear.
  void addEventListener(const std::shared_ptr<MeetingEventListener>& listener);
  template <HeldByCallerOnly Listener>
  [[deprecated(
      "listeners are held weakly, and this one goes at once: name it, or use listen()")]]  //
  void
  addEventListener(std::shared_ptr<Listener>&& listener) {
    addEventListener(std::as_const(listener));
  }
  /// The same for a listener that is kept, and listens, while the handle lives.
  ListenerHandle listen(std::shared_ptr<MeetingEventListener> listener);
  /// The same for functions, by the names of `MeetingEventListener`'s operations.
  ListenerHandle listen(MeetingEvents events);
  void removeEventListener(const std::shared_ptr<MeetingEventListener>& listener);
  void removeAllEventListeners();

private:
  const std::shared_ptr<MeetingCore> _core;
};

}  // namespace kestrova
