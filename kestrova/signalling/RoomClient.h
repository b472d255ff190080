#pragma once

#include <kestrova/media/Consuming.h>
#include <kestrova/media/MediaCapturer.h>
#include <kestrova/media/MediaRegistry.h>
#include <kestrova/media/Publishing.h>
#include <kestrova/media/Transports.h>
#include <kestrova/signalling/Delegates.h>
#include <kestrova/signalling/JoinSequence.h>
#include <kestrova/signalling/RemoteEventDispatcher.h>
#include <kestrova/signalling/RoomContext.h>
#include <kestrova/signalling/Teardown.h>

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
                         public std::enable_shared_from_this<RoomClient> {
public:
  static std::shared_ptr<RoomClient> make(RoomClientOptions options);
  ~RoomClient() override;

  void setDelegate(std::weak_ptr<RoomClientDelegate> delegate) {
    _context->setDelegate(std::move(delegate));
  }

  /// Starts the whole join, up to the entry request; see `JoinSequence`.
  Task<void> connect();
  Task<void> setupDeviceAndTransports(bool isLoaded, std::optional<SpanScope> changeModeSpan,
                                      bool needToCreateSendTransport,
                                      bool needToCreateRecvTransport);
  /// \returns the codecs that the room can't decode \throws RoomClientFailure deviceNotLoaded
  Task<std::vector<std::string>> join(CameraPosition cameraPosition, bool isSwitchingRoom,
                                      Mode mode, bool isBatchingEnabled);
  Task<void> disconnect(LeaveReason leaveReason, bool closeSocket);
  Task<void> closeRoom(std::optional<LeaveReason> leaveReason);
  Task<void> respondEntry(std::string peerId, std::string decision);
  /// Closes what an earlier connection left of the microphone or camera.
  /// \returns the stream that went, if there was one
  Task<std::optional<std::string>> cleanupAudio();
  Task<std::optional<std::string>> cleanupVideo();

  bool joined() const { return _context->joined(); }
  void setJoined(bool joined) { _context->setJoined(joined); }
  /// Ends the spans of the meeting that is over, and has the tracer forget it.
  void cleanUpTracing();

  RoomSpans& spans() { return _context->spans; }
  PubSubEndpointStore& pubSubEndpointStore() { return _context->pubSubEndpointStore; }
  void forgetCustomStreams() { _context->forgetCustomStreams(); }
  const std::shared_ptr<Publishing>& publishing() const { return _publishing; }
  const std::shared_ptr<Consuming>& consuming() const { return _consuming; }
  const std::shared_ptr<MediaCapturer>& capturer() const { return _capturer; }

  void handleRemoteEvent(RemoteEvent event, const Dictionary& response) override;
  void handleNewConsumer(const Dictionary& response) override;
  Dictionary getStatsData() override;
  Task<bool> socketConnected(SpanScope joinSpan) override;
  Task<void> socketDisconnected(LeaveReason reason) override;
  void socketError(const std::string& message) override;
  void meetingStateChanged(MeetingState state) override;

private:
  explicit RoomClient(RoomClientOptions options);
  void reconnecting();

  const std::shared_ptr<RoomContext> _context;
  const std::shared_ptr<MediaRegistry> _registry;
  const std::shared_ptr<MediaCapturer> _capturer;
  const std::shared_ptr<Transports> _transports;
  const std::shared_ptr<Publishing> _publishing;
  const std::shared_ptr<Consuming> _consuming;
  const std::shared_ptr<JoinSequence> _joinSequence;
  const std::shared_ptr<Teardown> _teardown;
  RemoteEventDispatcher _dispatcher;
};

}  // namespace kestrova
