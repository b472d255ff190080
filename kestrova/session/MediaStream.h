#pragma once

#include <kestrova/media/MediaType.h>
#include <kestrova/monitoring/LinkCondition.h>
#include <kestrova/platform/Mediasoup.h>
#include <kestrova/session/MeetingAction.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace kestrova {

enum class MediaStreamEventType { state };

/// One published or received track of a participant. Thread-safe.
///
/// To watch or hear it, add a sink to its track: `stream->videoTrack()->addSink(sink)`.
class MediaStream {
public:
  using StateListener = std::function<void(StreamState)>;

  explicit MediaStream(std::shared_ptr<Producer> producer);
  MediaStream(std::shared_ptr<Consumer> consumer, bool isShare);

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

  bool isPaused() const;
  /// The engine's statistics of this stream: JSON text of a list of objects as the W3C's
  /// webrtc-stats identifiers name them ("outbound-rtp", "inbound-rtp", "candidate-pair"...).
  /// An empty list once the stream is closed.
  Task<std::string> stats() const;

  /// Calls `listener` on the main queue with every change of how the stream flows.
  /// \returns the id that `off` takes
  std::string on(MediaStreamEventType event, StateListener listener);
  /// An unknown id does nothing.
  void off(MediaStreamEventType event, const std::string& listenerId);

  /// For the stream's participant: where the guard is to be found.
  void setMeetingActionValidatorSource(std::weak_ptr<MeetingActionValidatorProviding> source);
  /// For the stream's participant, on the main queue.
  void notifyState(StreamState state);

  bool operator==(const MediaStream& other) const { return _id == other._id; }

private:
  std::shared_ptr<RtpStream> rtpStream() const;

  const std::string _id;
  const MediaType _kind;
  const std::shared_ptr<RTCMediaStreamTrack> _track;
  const std::shared_ptr<Producer> _producer;
  const std::shared_ptr<Consumer> _consumer;

  mutable std::mutex _lock;
  std::weak_ptr<MeetingActionValidatorProviding> _meetingActionValidatorSource;
  std::map<std::string, StateListener> _stateListeners;
};

}  // namespace kestrova
