#pragma once

#include <kestrova/media/LocalSending.h>
#include <kestrova/model/MeetingTypes.h>
#include <kestrova/model/MulticastDelegate.h>
#include <kestrova/platform/AsyncLock.h>
#include <kestrova/session/MeetingEventListener.h>
#include <kestrova/session/Participant.h>
#include <kestrova/signalling/RoomClient.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kestrova {

/// What a meeting was created with, defaults filled in. The id may be another by now: see
/// `MeetingContext::id`; the mode is in `MeetingContext::sending`.
struct MeetingSettings {
  std::string id;
  std::string accessToken;
  bool micEnabled = false;
  bool webcamEnabled = false;
  bool multiStream = true;
  PreferredProtocol preferredProtocol = PreferredProtocol::UDP_OVER_TCP;
  std::optional<std::string> signalingBaseUrl;
  MetaData metaData;
  bool codecSwitchEnabled = false;
  bool batchingEnabled = true;
};

/// What the pieces of one meeting share. Held weakly by everything that outlasts a call.
class MeetingContext : public std::enable_shared_from_this<MeetingContext> {
public:
  MeetingContext(MeetingSettings meetingSettings, std::shared_ptr<Participant> local,
                 std::shared_ptr<MediaConfigStore> configStore,
                 std::shared_ptr<LocalSending> localSending);

  const MeetingSettings settings;
  const std::shared_ptr<Participant> localParticipant;
  const std::shared_ptr<MediaConfigStore> mediaConfigStore;
  /// The mode, and the application's own tracks.
  const std::shared_ptr<LocalSending> sending;
  /// To which connection a step belongs. It is over for good when the meeting is left or ends.
  const std::shared_ptr<Connections> connections = std::make_shared<Connections>();
  MeetingMulticastDelegate listeners;
  /// Lets a join and a change of mode, which both build transports, have their turns.
  AsyncLock roads;

  /// Whether the frames of this meeting are encrypted end to end: the service can't look into them.
  bool e2eeEnabled() const { return _e2eeEnabled; }
  void setE2eeEnabled(bool enabled) { _e2eeEnabled = enabled; }

  /// The service has taken the join on this connection: transports are there, and the mode may
  /// change.
  void setJoinedOn(const Connection& connection);
  bool isJoinedOn(const Connection& connection) const;

  /// Made on first use. \throws std::exception when the media engine can't be made
  std::shared_ptr<RoomClient> roomClient();
  /// Nothing when none was made yet.
  std::shared_ptr<RoomClient> existingRoomClient() const;
  /// Whom the room client will report to.
  void setRoomClientDelegate(std::weak_ptr<RoomClientDelegate> delegate);
  bool joined();

  /// The meeting's id; changes with a switch of rooms.
  std::string id() const;
  void setId(std::string id);

  using Event = std::function<void(MeetingEventListener&)>;
  /// Calls `event` with each listener on the main queue, unless the meeting is gone by then.
  void emit(Event event);
  /// The same; `before` is run once, ahead of the first listener.
  void emit(std::function<void()> before, Event event);
  /// A service that quotes the token it refuses must not bring it into anybody's log.
  std::string withoutToken(std::string text) const;
  /// The one way by which a failure reaches the application. Any thread.
  void onError(const KestrovaError& error);

private:
  mutable std::mutex _roomClientLock;  // for the read
  std::mutex _roomClientInitLock;      // for the making
  std::shared_ptr<RoomClient> _roomClient;
  std::weak_ptr<RoomClientDelegate> _roomClientDelegate;

  mutable std::mutex _idLock;
  std::string _id;
  std::optional<Connection> _joinedOn;
  std::atomic<bool> _e2eeEnabled = false;
};

}  // namespace kestrova
