#pragma once

#include <kestrova/media/AudioManager.h>
#include <kestrova/media/ConsumerControls.h>
#include <kestrova/media/Consuming.h>
#include <kestrova/media/MediaCapturer.h>
#include <kestrova/media/MediaRegistry.h>
#include <kestrova/media/Publishing.h>
#include <kestrova/media/Transports.h>
#include <kestrova/monitoring/TransportMonitor.h>
#include <kestrova/signalling/Delegates.h>
#include <kestrova/signalling/JoinSequence.h>
#include <kestrova/signalling/ModeChanging.h>
#include <kestrova/signalling/ParticipantDelegate.h>
#include <kestrova/signalling/PeerRequests.h>
#include <kestrova/signalling/RemoteEventDispatcher.h>
#include <kestrova/signalling/RoomContext.h>
#include <kestrova/signalling/RoomSwitch.h>
#include <kestrova/signalling/ServiceRequests.h>
#include <kestrova/signalling/Teardown.h>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

/// The engine behind a meeting: the front door to the pieces that join, publish, consume, dispatch
/// what the service pushes, and take everything down once. Serves one meeting from its join to its
/// end. Any thread may call.
class RoomClient final : public RemoteEventDelegate,
                         public SocketEventDelegate,
                         public MeetingStateDelegate,
                         public ParticipantDelegate,
                         public MediaStreamDelegate,
                         public E2EEManagerDelegate,
                         public std::enable_shared_from_this<RoomClient> {
public:
  static std::shared_ptr<RoomClient> make(RoomClientOptions options);
  ~RoomClient() override;

  void setDelegate(std::weak_ptr<RoomClientDelegate> delegate) {
    _context->setDelegate(std::move(delegate));
  }

  /// Starts the whole join, up to the entry request; see `JoinSequence`. Once.
  /// \param keyProvider with it, what is sent and received is encrypted end to end
  Task<void> connect(std::shared_ptr<BaseKeyProvider> keyProvider = nullptr);
  Task<void> setupDeviceAndTransports(bool isLoaded, std::optional<SpanScope> changeModeSpan,
                                      bool needToCreateSendTransport,
                                      bool needToCreateRecvTransport, Connection connection);
  /// See `JoinSequence::join`. \throws RoomClientFailure deviceNotLoaded
  Task<std::optional<std::vector<std::string>>> join(CameraPosition cameraPosition,
                                                     bool isSwitchingRoom, Mode mode,
                                                     bool isBatchingEnabled, Connection connection);
  Task<void> disconnect(LeaveReason leaveReason, bool closeSocket,
                        std::shared_ptr<void> goodbye = {});
  Task<void> closeRoom(std::optional<LeaveReason> leaveReason);
  Task<void> respondEntry(std::string peerId, std::string decision);
  Task<void> switchTo(std::optional<std::string> token, std::string meetingId, Mode mode);
  void softClose(const std::string& nextMeetingId);
  Task<void> switchingRoom(std::string meetingId, Mode mode, bool isBatchingEnabled,
                           Connection connection);
  std::optional<std::string> takeInterruptedSwitch(const Connection& now) {
    return _roomSwitch->takeInterrupted(now);
  }
  /// See `RoomSwitch`.
  bool takeForgottenSwitch(const Connection& now) { return _roomSwitch->takeForgotten(now); }
  void switchesDecided() { _roomSwitch->allDecided(); }
  /// \throws ModeChangeFailure
  Task<void> changeMode(Mode mode, Connection connection, std::optional<SpanScope> changeModeSpan);
  /// Closes what an earlier connection left of the microphone or camera.
  /// \returns the stream that went, if there was one
  Task<std::optional<std::string>> cleanupAudio();
  Task<std::optional<std::string>> cleanupVideo();

  /// See `AudioManager::changeMic`.
  Task<std::optional<std::string>> changeMic(std::string selectedDevice);

  /// Starts a request of the application's, behind those that it made before.
  void inOrder(Task<void> request);
  /// Runs `work` once all of them have been handed to the socket, on its queue.
  void afterRequests(Work work) { _context->afterRequests(std::move(work)); }

  /// Whether what is sent and received is encrypted end to end.
  bool isEncrypted() const { return _context->e2eeManager != nullptr; }
  bool joined() const { return _context->joined(); }
  void setJoined(bool joined) { _context->setJoined(joined); }
  /// Tells the telemetry in which session the meeting is, or that the service named none.
  void noteSession(const std::optional<std::string>& sessionId);
  /// Ends the spans of the meeting that is over, and has the tracer forget it.
  void cleanUpTracing();
  /// From here on what goes wrong is told to this log, in place of that of a stay before.
  void logTo(const std::shared_ptr<TraceOutput>& backendLog);

  RoomSpans& spans() { return _context->spans; }
  const MeetingData& meetingData() const { return _context->options.meeting; }
  const std::shared_ptr<SocketRequestHandler>& requests() const {
    return _context->socketRequestHandler;
  }
  /// Connected again, or on the way to another meeting, but not in a meeting yet.
  bool awaitsJoin() const {
    return !_context->connections->isOver() && _context->pubSubEndpointStore.awaitsJoin();
  }
  /// See `FileUpload`; nothing happens before the join knows the service.
  void uploadBase64File(std::string base64Data, const std::string& token,
                        const std::string& fileName, FileUpload::Completion completion);
  void fetchBase64File(const std::string& url, const std::string& token,
                       FileUpload::Completion completion);

  PubSubEndpointStore& pubSubEndpointStore() { return _context->pubSubEndpointStore; }
  const std::shared_ptr<Publishing>& publishing() const { return _publishing; }
  const std::shared_ptr<Consuming>& consuming() const { return _consuming; }
  const std::shared_ptr<ConsumerControls>& consumerControls() const { return _consumerControls; }
  const std::shared_ptr<ServiceRequests>& serviceRequests() const { return _serviceRequests; }
  const std::shared_ptr<MediaCapturer>& capturer() const { return _capturer; }
  const std::shared_ptr<BroadcastCapturer>& broadcast() const { return _broadcast; }
  const std::shared_ptr<AudioManager>& audioSession() const { return _audioSession; }

  void handleRemoteEvent(RemoteEvent event, const Dictionary& response) override;
  void handleNewConsumer(const Dictionary& response) override;
  Dictionary getStatsData() override;
  Task<bool> socketConnected(SpanScope joinSpan, Connection connection) override;
  Task<void> socketDisconnected(LeaveReason reason) override;
  void socketError(const std::string& message) override;
  void meetingStateChanged(MeetingState state, Connection connection) override;

  void encryptionStateChanged(const std::string& id, RTCFrameCryptorState state) override;

  void askOfPeer(LocalEvent request, const std::string& participantId) override;
  void participantPinStateChanged(const std::string& participantId, ParticipantPinState pinState,
                                  bool pinning, std::function<void()> onRefused) override;
  void setQuality(VideoQuality quality, const std::string& consumerId,
                  const std::string& participantId, std::function<void()> onRefused) override;
  std::optional<List> getStats(const std::string& participantId, MediaType type) override;
  using ImageCompletion = std::function<void(const std::optional<std::string>&)>;
  /// A still picture of the local camera, such as others see it. See `takeStillPicture`.
  void imageCapturer(std::optional<double> height, std::optional<double> width,
                     ImageCompletion completion);
  void imageCapturer(const std::shared_ptr<RTCVideoTrack>& of, std::optional<double> height,
                     std::optional<double> width, ImageCompletion completion) override;
  void pauseConsumer(const std::string& consumerId) override;
  void resumeConsumer(const std::string& consumerId) override;

private:
  explicit RoomClient(RoomClientOptions options);
  void applyState(MeetingState state, const Connection& connection);
  void reconnecting(Transports::Lost lost);

  const std::shared_ptr<RoomContext> _context;
  const std::shared_ptr<MediaRegistry> _registry;
  const std::shared_ptr<MediaCapturer> _capturer;
  const std::shared_ptr<BroadcastCapturer> _broadcast;
  const std::shared_ptr<AudioManager> _audioSession;
  const std::shared_ptr<TransportMonitor> _monitor;
  const std::shared_ptr<Transports> _transports;
  const std::shared_ptr<Publishing> _publishing;
  const std::shared_ptr<Consuming> _consuming;
  const std::shared_ptr<ConsumerControls> _consumerControls;
  const std::shared_ptr<ServiceRequests> _serviceRequests;
  const std::shared_ptr<JoinSequence> _joinSequence;
  const std::shared_ptr<Teardown> _teardown;
  const std::shared_ptr<RoomSwitch> _roomSwitch;
  const std::shared_ptr<ModeChanging> _modeChanging;
  const std::shared_ptr<PeerRequests> _peerRequests;
  RemoteEventDispatcher _dispatcher;
  std::atomic<bool> _isTracing{false};  // from the join to the end
};

}  // namespace kestrova
