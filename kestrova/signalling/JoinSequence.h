#pragma once

#include <kestrova/media/MediaCapturer.h>
#include <kestrova/media/Transports.h>
#include <kestrova/signalling/APIManager.h>
#include <kestrova/signalling/RoomContext.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

/// From nothing to a joined room: the service's configuration, the socket, the entry request, and
/// after the entry the request "join". A return of the socket runs the same steps from the entry
/// on.
class JoinSequence : public std::enable_shared_from_this<JoinSequence> {
public:
  JoinSequence(std::shared_ptr<RoomContext> context, std::shared_ptr<Transports> transports,
               std::shared_ptr<MediaCapturer> capturer);

  /// Looks the meeting up and opens the socket. The look-up keeps nothing of the meeting alive.
  Task<void> connect();
  /// Asks to enter. \returns whether the service took the request
  Task<bool> requestEntry(SpanScope joinSpan, Connection connection);
  /// \returns the codecs that the room can't decode; nothing when the connection went meanwhile,
  ///   whatever the service made of the request
  /// \throws RoomClientFailure deviceNotLoaded
  Task<std::optional<std::vector<std::string>>> join(CameraPosition cameraPosition,
                                                     bool isSwitchingRoom, Mode mode,
                                                     bool isBatchingEnabled, Connection connection);

private:
  void open(const ServerConfig& found, const Connection& connection);
  void refused(const ServerConfig& found, const Connection& connection);
  void startTelemetry(const Dictionary& observability) const;
  SpanScope startJoinSpan() const;
  void fail(const KestrovaError& error, const Connection& connection);
  void releaseCapturedMediaAfterFailedJoin();
  void takeParticipants(const Dictionary& answer) const;

  const std::shared_ptr<RoomContext> _context;
  const std::shared_ptr<Transports> _transports;
  const std::shared_ptr<MediaCapturer> _capturer;
};

}  // namespace kestrova
