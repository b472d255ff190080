#pragma once

#include <kestrova/media/CustomRTCMediaStream.h>
#include <kestrova/model/MeetingTypes.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/realtime/PubSubEndpointStore.h>
#include <kestrova/signalling/RoomClientDelegate.h>
#include <kestrova/signalling/RoomSpans.h>
#include <kestrova/signalling/SocketRequestHandler.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kestrova {

/// What a room client is made with.
struct RoomClientOptions {
  MeetingData meeting;
  std::shared_ptr<CustomRTCMediaStream> customVideoMediaStream;
  std::shared_ptr<CustomRTCMediaStream> customAudioMediaStream;
  bool multiStream = true;
  Mode mode = Mode::SEND_AND_RECV;
  PreferredProtocol preferredProtocol = PreferredProtocol::UDP_OVER_TCP;
  std::optional<std::string> signalingBaseUrl;
};

/// What the pieces of one room client share. Each piece keeps the state that it alone changes.
class RoomContext {
public:
  explicit RoomContext(RoomClientOptions roomOptions);

  const RoomClientOptions options;
  const std::shared_ptr<const Platform> platform;
  const std::shared_ptr<SocketRequestHandler> socketRequestHandler;
  /// Serialises `joined`, the producers and the consumers. Never wait for it from within.
  const std::shared_ptr<SerialQueue> stateQueue;
  RoomSpans spans;
  PubSubEndpointStore pubSubEndpointStore;

  /// The meeting, if it is still there.
  std::shared_ptr<RoomClientDelegate> delegate() const;
  void setDelegate(std::weak_ptr<RoomClientDelegate> delegate);

  /// What the local participant sends and receives; begins as the options say.
  Mode mode() const;
  void setMode(Mode mode);

  bool joined() const;
  void setJoined(bool joined);

  /// The application's own tracks, until a failed join or the meeting's end lets go of them.
  std::shared_ptr<CustomRTCMediaStream> customVideoMediaStream() const;
  std::shared_ptr<CustomRTCMediaStream> customAudioMediaStream() const;
  void forgetCustomStreams();

private:
  mutable std::mutex _lock;
  std::weak_ptr<RoomClientDelegate> _delegate;
  Mode _mode;
  std::shared_ptr<CustomRTCMediaStream> _customVideoMediaStream;
  std::shared_ptr<CustomRTCMediaStream> _customAudioMediaStream;
  bool _joined = false;  // on stateQueue
};

}  // namespace kestrova
