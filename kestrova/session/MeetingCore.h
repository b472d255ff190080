#pragma once

#include <kestrova/media/CallObserverManager.h>
#include <kestrova/platform/NotificationCenter.h>
#include <kestrova/session/AudioControls.h>
#include <kestrova/session/CharacterRegistry.h>
#include <kestrova/session/MediaControls.h>
#include <kestrova/session/MeetingContext.h>
#include <kestrova/session/MeetingLifecycle.h>
#include <kestrova/session/MeetingRealtime.h>
#include <kestrova/session/ModeChange.h>
#include <kestrova/session/ParticipantRegistry.h>
#include <kestrova/session/RequestsFromOthers.h>
#include <kestrova/session/ServiceControls.h>
#include <kestrova/session/ServiceStatus.h>
#include <kestrova/signalling/RoomClientDelegate.h>

#include <memory>

namespace kestrova {

/// What stands behind a `Meeting`: its pieces, the guard that its objects ask, and the ear to which
/// the room client reports. Each report goes to the piece that owns it.
class MeetingCore final : public RealtimeMeeting,
                          public RoomClientDelegate,
                          public std::enable_shared_from_this<MeetingCore> {
public:
  static std::shared_ptr<MeetingCore> make(std::shared_ptr<MeetingContext> context);

  const std::shared_ptr<MeetingContext> context;
  const std::shared_ptr<ParticipantRegistry> registry;
  const std::shared_ptr<CharacterRegistry> characters;
  const std::shared_ptr<MediaControls> media;
  const std::shared_ptr<AudioControls> audio;
  const std::shared_ptr<MeetingRealtime> realtime;
  const std::shared_ptr<ServiceStatus> services;
  const std::shared_ptr<MeetingLifecycle> lifecycle;
  const std::shared_ptr<ModeChange> modeChange;
  const std::shared_ptr<ServiceControls> controls;
  const std::shared_ptr<RequestsFromOthers> requests;

  std::optional<MeetingActionValidationFailure> meetingActionState() const override;
  void emitMeetingActionValidationFailure(MeetingActionValidationFailure failure,
                                          std::string_view methodName) override;

  std::mutex& meetingStateLock() override { return lifecycle->meetingStateLock(); }
  void meetingStateChanged(MeetingState state) override { lifecycle->meetingStateChanged(state); }
  void meetingJoined(const std::optional<std::string>& switchMeetingId) override;
  Task<void> disconnected(std::optional<LeaveReason> leaveReason) override;
  Task<void> closeMeetingRequested(LeaveReason leaveReason) override;
  void socketConnectionError(const std::string& message) override;
  void onError(const KestrovaError& error) override {
    noteError(error);
    context->onError(error);
  }
  void noteError(const KestrovaError& error) override {
    lifecycle->over->noteError(error.withCause(context->withoutToken(error.cause())));
  }
  void entryRequested(const Dictionary& data) override { requests->entryRequested(data); }
  void entryResponded(const Dictionary& data) override { lifecycle->entryResponded(data); }
  void handleOnRemoveCurrentMeetingParticipant() override;

  void addParticipant(const Peer& peer) override;
  void removeParticipant(const std::string& id, LeaveReason leaveReason) override;
  void keepOnly(const std::set<std::string>& ids) override { registry->keepOnly(ids); }
  void addStream(const std::shared_ptr<Consumer>& consumer, bool isShare,
                 const std::string& participantId) override;
  void removeStream(const std::string& id) override;
  void handleStreamStateChange(StreamState state, const std::string& peerId,
                               const std::string& trackId) override;
  void streamsMeasured(const std::vector<StreamMeasurement>& measured) override;
  void e2eeStateChanged(const std::string& peerID, E2EEState state,
                        const std::string& streamId) override {
    registry->e2eeStateChanged(peerID, state, streamId);
  }
  void qualityLimitationInternal(QualityLimitationType type, QualityLimitationState state,
                                 std::int64_t timestamp) override;
  void participantMediaStatusChanged(const std::string& peerId, const std::string& kind,
                                     bool newState) override;
  void participantModeChanged(const std::string& participantId, Mode mode) override;
  void pinStateChanged(const std::string& participantId, ParticipantPinState pinState,
                       const std::string& pinnedBy) override;
  void speakerChanged(const std::optional<std::string>& participantId) override;
  void handleParticipantPausedBySubManager(const Dictionary& data) override;
  void handleParticipantResumeBySubManager(const Dictionary& data) override;
  void pauseAllStreams(const std::string& kind) override;
  void resumeAllStreams(const std::string& kind) override;

  void enableMicRequested(const std::optional<std::string>& participantId) override;
  void disableMicRequested(const std::optional<std::string>& participantId) override;
  void enableWebcamRequested(const std::optional<std::string>& participantId,
                             std::optional<CameraPosition> cameraPosition) override;
  void disableWebcamRequested(const std::optional<std::string>& participantId) override;

  void recordingStarted() override;
  void recordingStopped() override;
  void livestreamStarted() override;
  void livestreamStopped() override;
  void onHlsStateChanged(HLSState state, const HLSUrl& hlsUrls) override;
  void onRecordingStateChanged(RecordingState state) override;
  void onLivestreamStateChanged(LiveStreamState state) override;
  void onTranscriptionStateChanged(TranscriptionState state) override;
  void transcriptionText(const TranscriptionText& text) override;
  void whiteboardStarted(const std::string& url) override;
  void whiteboardStopped() override;
  void onMediaRelayRequestReceived(const std::string& participantId, const std::string& meetingId,
                                   const std::string& displayName) override;
  void onMediaRelayRequestResponse(const std::string& decision, const std::string& decidedBy,
                                   const std::string& meetingId) override;
  void onMediaRelayStarted(const std::string& meetingId) override;
  void onMediaRelayStopped(const std::string& meetingId) override;
  void onMediaRelayError(const std::string& meetingId, const std::string& error) override;

  void handleRealtimeStoreValueChanged(const Dictionary& data) override {
    realtime->handleRealtimeStoreValueChanged(data);
  }
  void pubsubMessageReceived(const Dictionary& data) override {
    realtime->pubsubMessageReceived(data);
  }

  void addCharacter(const Peer& peer) override { characters->addCharacter(peer); }
  void removedCharacter(const std::string& characterId) override {
    characters->removedCharacter(characterId);
  }
  void characterMessageReceived(const CharacterMessage& message) override {
    characters->characterMessageReceived(message);
  }
  void characterStateChanged(const CharacterStateChange& change) override {
    characters->characterStateChanged(change);
  }
  void agentStateChanged(const std::string& peerId, AgentState state) override;
  void agentTranscriptReceived(const std::string& peerId, const std::string& text,
                               std::int64_t timestamp) override;
  void agentMetricsReceived(const std::string& peerId, const Dictionary& metrics) override;

  void performVP8CodecFallback(VideoCodec unsupportedCodec, const std::string& kind,
                               const std::optional<std::string>& causedByPeerId) override;
  void switchRoomUnsupportedCodecs(const std::vector<std::string>& codecs) override;
  void recordVideoCodec(VideoCodec codec) override;
  void recordMultiStreamDowngrade() override;

private:
  explicit MeetingCore(std::shared_ptr<MeetingContext> meetingContext);
  void observeExternalCalls();

  const CallMonitoring _callMonitoring;
  std::shared_ptr<NotificationCenter::Observer> _callObserver;
};

}  // namespace kestrova
