#pragma once

#include <kestrova/media/MediaType.h>
#include <kestrova/media/SinkHandle.h>
#include <kestrova/media/StreamMetrics.h>
#include <kestrova/model/LinkCondition.h>
#include <kestrova/platform/TaskFwd.h>
#include <kestrova/platform/WebRTC.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kestrova {

class Consumer;
class MediaStreamDelegate;
class MeetingActionValidatorProviding;
class Producer;
class RtpStream;

enum class MediaStreamEventType { state };

/// One published or received track of a participant. Thread-safe.
///
/// To watch or hear it, add a sink: to the stream, where the sink may take its time, or to its
/// track, `stream->videoTrack()->addSink(sink)`, where it is called at once on a thread of the
/// engine.
class MediaStream {
public:
  using StateListener = std::function<void(StreamState)>;
  using MetricsListener = std::function<void(const StreamMetrics&)>;

  explicit MediaStream(std::shared_ptr<Producer> producer);
  MediaStream(std::shared_ptr<Consumer> consumer, bool isShare);
  ~MediaStream();
  MediaStream(const MediaStream&) = delete;
  MediaStream& operator=(const MediaStream&) = delete;

  /// The id of the producer or consumer behind it.
  const std::string& id() const { return _id; }
  MediaType kind() const { return _kind; }
  const std::shared_ptr<RTCMediaStreamTrack>& track() const { return _track; }
  /// The track by its medium; nothing when it is of the other.
  std::shared_ptr<RTCVideoTrack> videoTrack() const;
  std::shared_ptr<RTCAudioTrack> audioTrack() const;
  /// Set on a local stream only.
  const std::shared_ptr<Producer>& producer() const { return _producer; }
  /// Set on a remote stream only.
  const std::shared_ptr<Consumer>& consumer() const { return _consumer; }

  /// Calls the sink on the library's background threads, one call at a time. It never holds up the
  /// media: of pictures the newest 3 wait for it, of sound 50 blocks of 10 ms, and the oldest gives
  /// way. A sink that throws is counted and called again. It stays while the stream is paused. A
  /// sink that works longer than its medium takes should hand the work to a thread of its own.
  ///
  /// The sink is held weakly; adding it twice gives the same handle. Nothing for a stream of the
  /// other medium.
  std::shared_ptr<SinkHandle> addSink(const std::shared_ptr<VideoSink>& sink);
  std::shared_ptr<SinkHandle> addSink(const std::shared_ptr<AudioSink>& sink);

  bool isPaused() const;
  /// Asks the service to send this stream of somebody else's no longer, or again. Does nothing for
  /// one's own. Nothing changes until it says so:
  /// `isPaused` follows its events.
  void pause();
  void resume();
  /// Why the service's subscription manager withholds this stream; nothing while it doesn't.
  std::optional<std::string> pausedBy() const;
  /// The engine's statistics of this stream: JSON text of a list of objects as the W3C's
  /// webrtc-stats identifiers name them ("outbound-rtp", "inbound-rtp", "candidate-pair"...), time
  /// stamps in milliseconds. An empty list once the stream is closed.
  Task<std::string> stats() const;

  /// The numbers of the last look at the engine, which comes every two seconds.
  StreamMetrics metrics() const;
  /// Calls `listener` on the main queue with each look's numbers, until the stream ends.
  /// \returns the id that `offMetrics` takes
  std::string onMetrics(MetricsListener listener);
  /// An unknown id does nothing.
  void offMetrics(const std::string& listenerId);

  /// Calls `listener` on the main queue with what becomes of the stream: FREEZE_DETECTED when the
  /// engine counts a freeze, which it does when the picture moves again, FREEZE_RESOLVED at the
  /// first look that is more than 5 s behind the last freeze, STUCK at every look that finds no
  /// picture coming once two such looks were more than 5 s apart, ACTIVE when the service sends a
  /// camera again, and ENDED, last and once, however it ends; it lets go of its listeners then.
  /// \returns the id that `off` takes
  std::string on(MediaStreamEventType event, StateListener listener);
  /// An unknown id does nothing.
  void off(MediaStreamEventType event, const std::string& listenerId);

  bool operator==(const MediaStream& other) const { return _id == other._id; }

private:
  friend class AICharacter;
  friend class CharacterRegistry;
  friend class Participant;
  friend class ParticipantRegistry;
  friend class StreamMap;

  /// For the stream's participant: where the guard is to be found.
  void setMeetingActionValidatorSource(std::weak_ptr<MeetingActionValidatorProviding> source);
  /// For the stream's participant.
  void setPausedBy(std::optional<std::string> reason);
  /// For the meeting: who carries out `pause` and `resume`.
  void setDelegate(std::weak_ptr<MediaStreamDelegate> delegate);
  /// For the stream's owner, on the main queue. \returns false behind the end, which is told once
  bool notifyState(StreamState state);
  void takeMetrics(const StreamMetrics& metrics);
  void dismissListeners();

  std::shared_ptr<RtpStream> rtpStream() const;
  void ask(const char* methodName, void (MediaStreamDelegate::*request)(const std::string&));

  const std::string _id;
  const MediaType _kind;
  const std::shared_ptr<RTCMediaStreamTrack> _track;
  const std::shared_ptr<Producer> _producer;
  const std::shared_ptr<Consumer> _consumer;

  struct State;
  const std::unique_ptr<State> _state;
};

}  // namespace kestrova
