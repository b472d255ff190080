#pragma once

#include <kestrova/media/EncodingTypes.h>
#include <kestrova/session/MediaStream.h>
#include <kestrova/session/MeetingAction.h>
#include <kestrova/session/ParticipantMulticastDelegate.h>
#include <kestrova/signalling/Peer.h>

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kestrova {

/// A person in the meeting, local or remote. Thread-safe; listeners are called on the main queue.
class Participant : public std::enable_shared_from_this<Participant>,
                    public MeetingActionValidatorProviding {
public:
  struct Options {
    std::string id;
    std::string displayName;
    bool isLocal = false;
    Mode mode = Mode::SEND_AND_RECV;
    std::optional<Dictionary> metaData;
  };
  explicit Participant(Options options);
  /// A remote participant, from what the service says.
  explicit Participant(const Peer& peer);

  const std::string& id() const { return _id; }
  const std::string& displayName() const { return _displayName; }
  bool isLocal() const { return _isLocal; }
  const std::optional<Dictionary>& metaData() const { return _metaData; }

  /// Streams by their id, as they are now.
  std::map<std::string, std::shared_ptr<MediaStream>> streams() const;
  VideoQuality videoQuality() const;
  ParticipantPinState pinState() const;
  Mode mode() const;

  /// Listeners are held weakly.
  void addEventListener(const std::shared_ptr<ParticipantEventListener>& listener);
  void removeEventListener(const std::shared_ptr<ParticipantEventListener>& listener);
  void removeAllEventListeners();

  std::shared_ptr<MeetingActionValidating> meetingActionValidator() const override;
  /// The participant with its streams, for traces.
  std::string toJsonString() const;

  bool operator==(const Participant& other) const { return _id == other._id; }

  // What follows is the meeting's side of it.

  void setMeetingActionValidator(std::weak_ptr<MeetingActionValidating> validator);
  /// Replaces a stream of the same id.
  void addStream(const std::shared_ptr<MediaStream>& stream);
  /// The stream that was there, if one was.
  std::shared_ptr<MediaStream> removeStream(const std::string& id);
  void removeAllStreams();
  void setMode(Mode mode);
  void setPinState(ParticipantPinState pinState);
  void handleStreamStateChanged(StreamState state, const std::string& streamId);
  void handleMediaStatusChanged(const std::string& peerId, MediaType kind, bool newStatus);

private:
  const std::string _id;
  const std::string _displayName;
  const bool _isLocal;
  const std::optional<Dictionary> _metaData;

  mutable std::mutex _streamsLock;
  std::map<std::string, std::shared_ptr<MediaStream>> _streams;

  mutable std::mutex _participantStateLock;
  VideoQuality _videoQuality = VideoQuality::high;
  ParticipantPinState _pinState{false, false};
  Mode _mode;
  std::weak_ptr<MeetingActionValidating> _meetingActionValidator;

  std::shared_ptr<ParticipantMulticastDelegate> _listeners =
      std::make_shared<ParticipantMulticastDelegate>();
};

/// A participant behind whom a server-side agent stands.
class AgentParticipant final : public Participant {
public:
  explicit AgentParticipant(const Peer& peer) : Participant(peer), _agentId(peer.agentId) {}
  const std::optional<std::string>& agentId() const { return _agentId; }

private:
  const std::optional<std::string> _agentId;
};

}  // namespace kestrova
