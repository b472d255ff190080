#pragma once

#include <kestrova/media/EncodingTypes.h>
#include <kestrova/media/MediaType.h>
#include <kestrova/model/CharacterTypes.h>
#include <kestrova/model/KestrovaError.h>
#include <kestrova/model/LinkCondition.h>
#include <kestrova/model/MeetingTypes.h>
#include <kestrova/model/Peer.h>
#include <kestrova/model/ServiceStates.h>
#include <kestrova/platform/Mediasoup.h>
#include <kestrova/platform/Task.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kestrova {

/// The only way from `RoomClient` to the meeting. Any thread, unless an operation says otherwise;
/// none of them blocks. Operations with a default are for owners that a meeting may do without.
class RoomClientDelegate {
public:
  virtual ~RoomClientDelegate() = default;

  // Lifecycle
  /// The one lock that is held across a call: around `meetingStateChanged`.
  virtual std::mutex& meetingStateLock() = 0;
  /// Called on the main queue with `meetingStateLock` held.
  virtual void meetingStateChanged(MeetingState state) = 0;
  /// Called on the main queue after a switch of rooms.
  virtual void meetingJoined(const std::optional<std::string>& switchMeetingId) = 0;
  virtual Task<void> disconnected(std::optional<LeaveReason> leaveReason) = 0;
  virtual Task<void> closeMeetingRequested(LeaveReason leaveReason) = 0;
  virtual void socketConnectionError(const std::string& message) = 0;
  virtual void onError(const KestrovaError& error) = 0;
  virtual void entryRequested(const Dictionary& data) = 0;
  virtual void entryResponded(const Dictionary& data) = 0;
  /// The local participant is on its way to another meeting: nobody of the old one is listed on.
  virtual void handleOnRemoveCurrentMeetingParticipant() = 0;

  // Participants and streams
  virtual void addParticipant(const Peer& peer) = 0;
  virtual void removeParticipant(const std::string& id, LeaveReason leaveReason) = 0;
  /// After a lost connection: everybody who is in the room now.
  virtual void keepOnly(const std::set<std::string>& ids) = 0;
  virtual void addStream(const std::shared_ptr<Consumer>& consumer, bool isShare,
                         const std::string& participantId) = 0;
  virtual void removeStream(const std::string& id) = 0;
  /// Called on the main queue.
  virtual void handleStreamStateChange(StreamState state, const std::string& peerId,
                                       const std::string& trackId) = 0;
  virtual void participantMediaStatusChanged(const std::string& peerId, const std::string& kind,
                                             bool newState) = 0;
  virtual void participantModeChanged(const std::string& participantId, Mode mode) = 0;
  virtual void pinStateChanged(const std::string& participantId, ParticipantPinState pinState,
                               const std::string& pinnedBy) = 0;
  virtual void speakerChanged(const std::optional<std::string>& participantId) = 0;
  /// The service paused or resumed all streams of "audio", "video", "share" or "all".
  virtual void pauseAllStreams(const std::string& /*kind*/) {}
  virtual void resumeAllStreams(const std::string& /*kind*/) {}
  virtual void handleParticipantPausedBySubManager(const Dictionary& /*data*/) {}
  virtual void handleParticipantResumeBySubManager(const Dictionary& /*data*/) {}

  // Requests from others
  virtual void enableMicRequested(const std::optional<std::string>& /*participantId*/) {}
  virtual void disableMicRequested(const std::optional<std::string>& /*participantId*/) {}
  virtual void enableWebcamRequested(const std::optional<std::string>& /*participantId*/,
                                     std::optional<CameraPosition> /*cameraPosition*/) {}
  virtual void disableWebcamRequested(const std::optional<std::string>& /*participantId*/) {}

  // Services
  virtual void recordingStarted() = 0;
  virtual void recordingStopped() = 0;
  virtual void livestreamStarted() = 0;
  virtual void livestreamStopped() = 0;
  virtual void onHlsStateChanged(HLSState state, const HLSUrl& hlsUrls) = 0;
  virtual void onRecordingStateChanged(RecordingState state) = 0;
  virtual void onLivestreamStateChanged(LiveStreamState state) = 0;
  virtual void onTranscriptionStateChanged(TranscriptionState state) = 0;
  virtual void transcriptionText(const TranscriptionText& text) = 0;
  virtual void whiteboardStarted(const std::string& url) = 0;
  virtual void whiteboardStopped() = 0;
  virtual void onMediaRelayRequestReceived(const std::string& /*participantId*/,
                                           const std::string& /*meetingId*/,
                                           const std::string& /*displayName*/) {}
  virtual void onMediaRelayRequestResponse(const std::string& /*decision*/,
                                           const std::string& /*decidedBy*/,
                                           const std::string& /*meetingId*/) {}
  virtual void onMediaRelayStarted(const std::string& /*meetingId*/) {}
  virtual void onMediaRelayStopped(const std::string& /*meetingId*/) {}
  virtual void onMediaRelayError(const std::string& /*meetingId*/, const std::string& /*error*/) {}
  virtual void handleRealtimeStoreValueChanged(const Dictionary& /*data*/) {}
  virtual void pubsubMessageReceived(const Dictionary& /*data*/) {}

  // Codecs
  virtual void performVP8CodecFallback(VideoCodec /*unsupportedCodec*/, const std::string& /*kind*/,
                                       const std::optional<std::string>& /*causedByPeerId*/) {}
  virtual void recordVideoCodec(VideoCodec codec) = 0;
  virtual void recordMultiStreamDowngrade() = 0;
  virtual void switchRoomUnsupportedCodecs(const std::vector<std::string>& /*codecs*/) {}

  // Characters and agents
  virtual void addCharacter(const Peer& /*peer*/) {}
  virtual void removedCharacter(const std::string& /*characterId*/) {}
  virtual void characterMessageReceived(const CharacterMessage& /*message*/) {}
  virtual void characterStateChanged(const CharacterStateChange& /*change*/) {}
  virtual void agentStateChanged(const std::string& /*peerId*/, AgentState /*state*/) {}
  virtual void agentTranscriptReceived(const std::string& /*peerId*/, const std::string& /*text*/,
                                       std::int64_t /*timestamp*/) {}
  virtual void agentMetricsReceived(const std::string& /*peerId*/, const Dictionary& /*metrics*/) {}
};

}  // namespace kestrova
