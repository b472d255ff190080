#pragma once

#include <kestrova/media/CustomRTCMediaStream.h>
#include <kestrova/model/MeetingTypes.h>
#include <kestrova/session/MeetingMulticastDelegate.h>
#include <kestrova/session/Participant.h>
#include <kestrova/signalling/RoomClient.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kestrova {

/// What a meeting was created with, defaults filled in. The id and the mode may be others by now:
/// see `MeetingContext::id` and `mode`.
struct MeetingSettings {
  std::string id;
  std::string accessToken;
  bool micEnabled = false;
  bool webcamEnabled = false;
  bool multiStream = true;
  Mode mode = Mode::SEND_AND_RECV;
  PreferredProtocol preferredProtocol = PreferredProtocol::UDP_OVER_TCP;
  std::optional<std::string> signalingBaseUrl;
  std::optional<Dictionary> metaData;
  bool codecSwitchEnabled = false;
  bool batchingEnabled = true;
};

/// What the pieces of one meeting share. Held weakly by everything that outlasts a call.
class MeetingContext : public std::enable_shared_from_this<MeetingContext> {
public:
  MeetingContext(MeetingSettings meetingSettings, std::shared_ptr<Participant> local,
                 std::shared_ptr<MediaConfigStore> configStore,
                 std::shared_ptr<CustomRTCMediaStream> customVideo,
                 std::shared_ptr<CustomRTCMediaStream> customAudio);

  const MeetingSettings settings;
  const std::shared_ptr<Participant> localParticipant;
  const std::shared_ptr<MediaConfigStore> mediaConfigStore;
  const std::shared_ptr<MeetingMulticastDelegate> listeners;

  /// Made on first use.
  std::shared_ptr<RoomClient> roomClient();
  /// Nothing when none was made yet.
  std::shared_ptr<RoomClient> existingRoomClient();
  /// Whom the room client will report to.
  void setRoomClientDelegate(std::weak_ptr<RoomClientDelegate> delegate);
  bool joined();
  /// Set once, when the meeting is left or ends: nothing is begun any more, though its steps may
  /// still be under way.
  bool isOver() const { return _over; }
  void setOver() { _over = true; }

  /// The meeting's id; changes with a switch of rooms.
  std::string id() const;
  void setId(std::string id);
  Mode mode() const;
  void setMode(Mode mode);

  /// The application's own tracks, as long as they are what is to be published.
  std::shared_ptr<CustomRTCMediaStream> customVideoMediaStream() const;
  std::shared_ptr<CustomRTCMediaStream> customAudioMediaStream() const;
  void setCustomVideoMediaStream(std::shared_ptr<CustomRTCMediaStream> stream);
  void setCustomAudioMediaStream(std::shared_ptr<CustomRTCMediaStream> stream);
  void forgetCustomStreams();

  /// Calls `event` with the listeners on the main queue, unless the meeting is gone by then.
  void emit(std::function<void(MeetingMulticastDelegate&)> event);
  /// The one way by which a failure reaches the application. Any thread.
  void onError(const KestrovaError& error);

private:
  std::atomic<bool> _over{false};
  std::mutex _roomClientLock;
  std::shared_ptr<RoomClient> _roomClient;
  std::weak_ptr<RoomClientDelegate> _roomClientDelegate;

  mutable std::mutex _idLock;
  std::string _id;
  Mode _mode;

  mutable std::mutex _customStreamLock;
  std::shared_ptr<CustomRTCMediaStream> _customVideoMediaStream;
  std::shared_ptr<CustomRTCMediaStream> _customAudioMediaStream;
};

}  // namespace kestrova
