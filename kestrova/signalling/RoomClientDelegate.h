#pragma once

#include <kestrova/media/EncodingTypes.h>
#include <kestrova/media/MediaType.h>
#include <kestrova/media/StreamMetrics.h>
#include <kestrova/model/CharacterTypes.h>
#include <kestrova/model/KestrovaError.h>
#include <kestrova/model/LinkCondition.h>
#include <kestrova/model/MeetingTypes.h>
#include <kestrova/model/Peer.h>
#include <kestrova/model/PinState.h>
#include <kestrova/model/ServiceStates.h>
#include <kestrova/platform/Mediasoup.h>
#include <kestrova/platform/Task.h>
#include <kestrova/tracing/Trace.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kestrova {

/// The only way from `RoomClient` to the meeting. Called on the main queue, in the order in which
/// the service said things, unless an operation says otherwise; none of them blocks.
class RoomClientDelegate {
public:
  virtual ~RoomClientDelegate() = default;

  // Lifecycle
  /// The one lock that is held across a call: around `meetingStateChanged`.
  virtual std::mutex& meetingStateLock() = 0;
  /// With `meetingStateLock` held.
  virtual void meetingStateChanged(MeetingState state) = 0;
  /// The join is done, on this connection.
  /// \param switchMeetingId the meeting that was moved to, if it is another one
  virtual void meetingJoined(const std::optional<std::string>& switchMeetingId) = 0;
  /// On a task.
  virtual Task<void> disconnected(std::optional<LeaveReason> leaveReason) = 0;
  /// On a task.
  virtual Task<void> closeMeetingRequested(LeaveReason leaveReason) = 0;
  /// On `socketEmitQueue`.
  virtual void socketConnectionError(const std::string& message) = 0;
  /// Any thread.
  virtual void onError(const KestrovaError& error) = 0;
  /// The same before it is told, should the meeting end of it. Any thread.
  virtual void noteError(const KestrovaError& error) = 0;
  virtual void entryRequested(const Dictionary& data) = 0;
  /// On `socketEmitQueue`, before anything that the service says next.
  virtual void entryResponded(const Dictionary& data) = 0;
  /// The local participant is on its way to another meeting: nobody of the old one is listed on.
  virtual void handleOnRemoveCurrentMeetingParticipant() = 0;

  // Participants and streams
  virtual void addParticipant(const Peer& peer) = 0;
  virtual void removeParticipant(const std::string& id, LeaveReason leaveReason) = 0;
  /// Everybody who is in the room now: whoever else is listed has left.
  virtual void keepOnly(const std::set<std::string>& ids) = 0;
  virtual void addStream(const std::shared_ptr<Consumer>& consumer, bool isShare,
                         const std::string& participantId) = 0;
  virtual void removeStream(const std::string& id) = 0;
  virtual void handleStreamStateChange(StreamState state, const std::string& peerId,
                                       const std::string& trackId) = 0;
  virtual void streamsMeasured(const std::vector<StreamMeasurement>& measured) = 0;
  /// Of a stream that is encrypted. \param peerID "N/A" where nobody has it any more
  virtual void e2eeStateChanged(const std::string& peerID, E2EEState state,
                                const std::string& streamId) = 0;
  /// \param timestamp in milliseconds since 1970
  virtual void qualityLimitationInternal(QualityLimitationType type, QualityLimitationState state,
                                         std::int64_t timestamp) = 0;
  virtual void participantMediaStatusChanged(const std::string& peerId, const std::string& kind,
                                             bool newState) = 0;
  virtual void participantModeChanged(const std::string& participantId, Mode mode) = 0;
  virtual void pinStateChanged(const std::string& participantId, ParticipantPinState pinState,
                               const std::string& pinnedBy) = 0;
  virtual void speakerChanged(const std::optional<std::string>& participantId) = 0;
  /// The service paused or resumed all streams of "audio", "video", "share" or "all". On a task.
  virtual void pauseAllStreams(const std::string& kind) = 0;
  virtual void resumeAllStreams(const std::string& kind) = 0;
  virtual void handleParticipantPausedBySubManager(const Dictionary& data) = 0;
  virtual void handleParticipantResumeBySubManager(const Dictionary& data) = 0;

  // Requests from others
  virtual void enableMicRequested(const std::optional<std::string>& participantId) = 0;
  virtual void disableMicRequested(const std::optional<std::string>& participantId) = 0;
  virtual void enableWebcamRequested(const std::optional<std::string>& participantId,
                                     std::optional<CameraPosition> cameraPosition) = 0;
  virtual void disableWebcamRequested(const std::optional<std::string>& participantId) = 0;

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
  virtual void onMediaRelayRequestReceived(const std::string& participantId,
                                           const std::string& meetingId,
                                           const std::string& displayName) = 0;
  virtual void onMediaRelayRequestResponse(const std::string& decision,
                                           const std::string& decidedBy,
                                           const std::string& meetingId) = 0;
  virtual void onMediaRelayStarted(const std::string& meetingId) = 0;
  virtual void onMediaRelayStopped(const std::string& meetingId) = 0;
  virtual void onMediaRelayError(const std::string& meetingId, const std::string& error) = 0;
  virtual void handleRealtimeStoreValueChanged(const Dictionary& data) = 0;
  virtual void pubsubMessageReceived(const Dictionary& data) = 0;

  // Codecs
  virtual void performVP8CodecFallback(VideoCodec unsupportedCodec, const std::string& kind,
                                       const std::optional<std::string>& causedByPeerId) = 0;
  /// On a task.
  virtual void recordVideoCodec(VideoCodec codec) = 0;
  /// On a task.
  virtual void recordMultiStreamDowngrade() = 0;
  /// On a task.
  virtual void switchRoomUnsupportedCodecs(const std::vector<std::string>& codecs) = 0;

  // Characters and agents
  virtual void addCharacter(const Peer& peer) = 0;
  virtual void removedCharacter(const std::string& characterId) = 0;
  virtual void characterMessageReceived(const CharacterMessage& message) = 0;
  virtual void characterStateChanged(const CharacterStateChange& change) = 0;
  virtual void agentStateChanged(const std::string& peerId, AgentState state) = 0;
  virtual void agentTranscriptReceived(const std::string& peerId, const std::string& text,
                                       std::int64_t timestamp) = 0;
  virtual void agentMetricsReceived(const std::string& peerId, const Dictionary& metrics) = 0;
};

}  // namespace kestrova
