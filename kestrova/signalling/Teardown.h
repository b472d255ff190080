#pragma once

#include <kestrova/media/AudioManager.h>
#include <kestrova/media/MediaCapturer.h>
#include <kestrova/media/MediaRegistry.h>
#include <kestrova/media/Publishing.h>
#include <kestrova/media/Transports.h>
#include <kestrova/signalling/RoomContext.h>

#include <memory>
#include <mutex>

namespace kestrova {

/// Takes a room client down, once in its life, whoever asks first. The socket goes last, so that
/// everything before it can still be told to the service; no failure on the way keeps it from
/// going.
class Teardown : public std::enable_shared_from_this<Teardown> {
public:
  Teardown(std::shared_ptr<RoomContext> context, std::shared_ptr<MediaRegistry> registry,
           std::shared_ptr<Transports> transports, std::shared_ptr<Publishing> publishing,
           std::shared_ptr<MediaCapturer> capturer, std::shared_ptr<BroadcastCapturer> broadcast,
           std::shared_ptr<AudioManager> audioSession);

  Task<void> disconnect(LeaveReason leaveReason, bool closeSocket,
                        std::shared_ptr<void> goodbye = {});
  Task<void> closeRoom(std::optional<LeaveReason> leaveReason);

private:
  bool claim();
  void letGoOfStreams();
  Task<void> closeLocalMedia(SpanScope parentSpan);

  const std::shared_ptr<RoomContext> _context;
  const std::shared_ptr<MediaRegistry> _registry;
  const std::shared_ptr<Transports> _transports;
  const std::shared_ptr<Publishing> _publishing;
  const std::shared_ptr<MediaCapturer> _capturer;
  const std::shared_ptr<BroadcastCapturer> _broadcast;
  const std::shared_ptr<AudioManager> _audioSession;

  std::mutex _teardownLock;
  bool _didTearDown = false;
};

}  // namespace kestrova
