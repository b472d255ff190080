#pragma once

#include <kestrova/media/EncodingTypes.h>
#include <kestrova/model/ListenerHandle.h>
#include <kestrova/model/MeetingAction.h>
#include <kestrova/model/MeetingTypes.h>
#include <kestrova/model/MetaData.h>
#include <kestrova/model/PinState.h>
#include <kestrova/platform/ValuesFwd.h>
#include <kestrova/session/MediaStream.h>
#include <kestrova/session/ParticipantEventListener.h>
#include <kestrova/session/ParticipantEvents.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace kestrova {

class ParticipantDelegate;
enum class LocalEvent;
struct Peer;

/// An operation that makes no sense for an agent; `what()` says which.
class AgentParticipantError : public std::runtime_error {
public:
  static AgentParticipantError unsupportedMethod(const std::string& method) {
    return AgentParticipantError(method + " method is not supported on agent participant.");
  }

private:
  using std::runtime_error::runtime_error;
};

/// A person in the meeting, local or remote. Thread-safe; listeners are called on the main queue.
///
/// The operations return at once. They do nothing before the join, while reconnecting and after the
/// end, but for the error that `onError` reports; nor when the meeting is gone.
class Participant : public std::enable_shared_from_this<Participant>,
                    public MeetingActionValidatorProviding {
public:
  struct Options {
    std::string id;
    std::string displayName;
    bool isLocal = false;
    Mode mode = Mode::SEND_AND_RECV;
    MetaData metaData;
  };
  explicit Participant(Options options);
  /// A remote participant, from what the service says.
  explicit Participant(const Peer& peer);
  ~Participant() override;

  const std::string& id() const { return _id; }
  const std::string& displayName() const { return _displayName; }
  bool isLocal() const { return _isLocal; }
  const MetaData& metaData() const { return _metaData; }

  /// Streams by their id, as they are now; `onStreamEnabled` of one of them may be still to come.
  std::map<std::string, std::shared_ptr<MediaStream>> streams() const;
  VideoQuality videoQuality() const;
  ParticipantPinState pinState() const;
  Mode mode() const;

  /// Listeners are held weakly: the application keeps them for as long as they shall hear.
  void addEventListener(const std::shared_ptr<ParticipantEventListener>& listener);
  template <HeldByCallerOnly Listener>
  [[deprecated(
      "listeners are held weakly, and this one goes at once: name it, or use listen()")]]  //
  void
  addEventListener(std::shared_ptr<Listener>&& listener) {
    addEventListener(std::as_const(listener));
  }
  /// The same for a listener that is kept, and listens, while the handle lives. One that is
  /// detached listens for as long as the participant is there.
  ListenerHandle listen(std::shared_ptr<ParticipantEventListener> listener);
  /// The same for functions, by the names of `ParticipantEventListener`'s operations.
  ListenerHandle listen(ParticipantEvents events);
  void removeEventListener(const std::shared_ptr<ParticipantEventListener>& listener);
  void removeAllEventListeners();

  /// Asks somebody to turn the microphone or camera on, which they may refuse, or turns it off for
  /// them. \throws AgentParticipantError for an agent
  virtual void enableMic();
  virtual void disableMic();
  virtual void enableWebcam();
  virtual void disableWebcam();
  /// Sends somebody out of the meeting.
  void remove();
  /// Keeps what is pinned in view for everybody; `onPinStateChanged` tells all of them.
  void pin(PinType type);
  void unpin(PinType type);
  /// Asks for other layers of a remote participant's camera. Nothing happens for the local
  /// participant, or when the stream that is received was asked for in that quality already: a
  /// stream that came since, and one for which it was refused, are asked for again.
  /// \throws AgentParticipantError for an agent
  virtual void setQuality(VideoQuality quality);

  /// A JPEG in base64, without line breaks; nothing when that failed.
  using ImageCompletion = std::function<void(const std::optional<std::string>& jpeg)>;
  /// A still picture of the participant's camera, upright, half a second from now: of one's own as
  /// the others see it. Does nothing, but for a line in the debug log, while the camera is off.
  /// \param height \param width in pixels, the picture is stretched to them; where they are not
  ///   given, the main screen's, and where there is no screen, the picture's own
  /// \param completion called once, on the main queue
  /// \throws AgentParticipantError for an agent
  virtual void captureImage(std::optional<double> height, std::optional<double> width,
                            ImageCompletion completion);

  /// The newest report of each of the participant's streams of that kind, two seconds old at most:
  /// a list of dictionaries with "trackId", "bitrate", "packetsLost", "jitter", "rtt", "codec" and
  /// more, as the service gets them. Nothing before the first, and when there is no such stream.
  /// Include kestrova/platform/Values.h to read one; `MediaStream::metrics` gives plain numbers.
  std::optional<List> getAudioStats() const;
  std::optional<List> getVideoStats() const;
  /// \throws AgentParticipantError for an agent
  virtual std::optional<List> getShareStats() const;

  std::shared_ptr<MeetingActionValidating> meetingActionValidator() const override;
  /// The participant with its streams, for traces.
  std::string toJsonString() const;

  bool operator==(const Participant& other) const { return _id == other._id; }

private:
  // The meeting's side of it, for those who keep participants and streams in step with the service.
  friend class AgentParticipant;
  friend class LocalMedium;
  friend class ScreenShareControls;
  friend class MediaControls;
  friend class MeetingCore;
  friend class MeetingLifecycle;
  friend class ModeChange;
  friend class ParticipantRegistry;

  void setMeetingActionValidator(std::weak_ptr<MeetingActionValidating> validator);
  /// Who carries out what is asked of the participant.
  void setDelegate(std::weak_ptr<ParticipantDelegate> delegate);
  /// Replaces a stream of the same id.
  void addStream(std::shared_ptr<MediaStream> stream);
  /// The stream that was there, if one was.
  std::shared_ptr<MediaStream> removeStream(const std::string& id);
  void removeAllStreams();
  void tellGone(const std::shared_ptr<MediaStream>& stream);
  /// The meeting is over: whoever listens to a stream hears its end.
  void endStreams();
  bool takeMetrics(const std::string& streamId, const StreamMetrics& metrics);
  void setMode(Mode mode);
  void setPinState(ParticipantPinState pinState);
  void handleStreamStateChanged(StreamState state, const std::string& streamId);
  void handleE2EEStateChanged(E2EEState state, const std::string& streamID);
  /// \returns whether the stream is listed
  bool tellEarlyE2EEState(const std::string& streamID);
  void handleMediaStatusChanged(const std::string& peerId, MediaType kind, bool newStatus);
  /// The service's subscription manager withholds a stream, or sends it again.
  void handleParticipantPause(const Dictionary& data);
  void handleParticipantResume(const Dictionary& data);

  std::optional<List> statsOf(MediaType type) const;
  /// The delegate, if the guard lets the operation through; reports the refusal if not.
  std::shared_ptr<ParticipantDelegate> mayAct(const char* methodName) const;
  template <class Event>
  void emit(Event event);
  void askOf(const char* methodName, LocalEvent request);
  void changePin(const char* methodName, PinType type, bool pinned);
  /// \param participant the agent who said it, or was told
  void handleTranscriptionReceived(const TranscriptionSegment& segment,
                                   const std::shared_ptr<Participant>& participant);
  void notePause(const Dictionary& data, std::optional<std::string> reason, const char* notFound);
  /// The participant has left.
  void releaseKeptListeners();
  /// The meeting was let go of: nobody hears anything any more.
  void dismissListeners();
  AgentState keptAgentState() const;
  void keepAgentState(AgentState state);
  void forgetAskedPins();
  void forgetQuality();

  const std::string _id;
  const std::string _displayName;
  const bool _isLocal;
  const MetaData _metaData;

  struct State;
  const std::unique_ptr<State> _state;
};

/// A participant behind whom a server-side agent stands. What it does, says and measures is told to
/// its listeners by `onAgentStateChanged`, `onAgentTranscriptionReceived` and `onAgentMetrics`;
/// what can't be asked of an agent throws `AgentParticipantError`.
class AgentParticipant final : public Participant {
public:
  explicit AgentParticipant(const Peer& peer);
  const std::optional<std::string>& agentId() const { return _agentId; }
  /// What it is doing; IDLE before the service has said anything.
  AgentState agentState() const;

  void enableMic() override { refuse("enableMic"); }
  void disableMic() override { refuse("disableMic"); }
  void enableWebcam() override { refuse("enableWebcam"); }
  void disableWebcam() override { refuse("disableWebcam"); }
  void setQuality(VideoQuality) override { refuse("setQuality"); }
  void captureImage(std::optional<double>, std::optional<double>, ImageCompletion) override {
    refuse("captureImage");
  }
  std::optional<List> getShareStats() const override;

private:
  [[noreturn]] static void refuse(const char* method) {
    throw AgentParticipantError::unsupportedMethod(method);
  }
  friend class ParticipantRegistry;
  void handleAgentStateChanged(AgentState state);
  void handleAgentMetrics(const Dictionary& metrics);

  const std::optional<std::string> _agentId;
};

}  // namespace kestrova
