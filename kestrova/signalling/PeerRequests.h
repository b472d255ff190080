#pragma once

#include <kestrova/signalling/Events.h>
#include <kestrova/signalling/RoomContext.h>

#include <functional>
#include <memory>
#include <string>

namespace kestrova {

/// What a participant asks of the service about itself or about another: entry, microphone, camera,
/// removal, pins. A refusal is traced and reported through `onError`.
class PeerRequests : public std::enable_shared_from_this<PeerRequests> {
public:
  explicit PeerRequests(std::shared_ptr<RoomContext> context) : _context(std::move(context)) {}

  /// \param request one of enablePeerMic, disablePeerMic, enablePeerWebcam, disablePeerWebcam and
  ///   removePeer
  Task<void> ask(LocalEvent request, std::string peerId);
  /// The answer of one who may decide to somebody's entry request: "allowed" or "denied".
  Task<void> respondEntry(std::string peerId, std::string decision);
  /// \param onRefused called before the failure is reported
  Task<void> participantPinStateChanged(std::string peerId, ParticipantPinState state, bool pinning,
                                        std::function<void()> onRefused);

private:
  struct Row;
  static const Row& row(LocalEvent request);
  /// \returns whether the service took the request
  bool judge(const Dictionary& reply, ScopedSpan& span, std::string_view failure,
             std::string_view success, const KestrovaError& error);

  const std::shared_ptr<RoomContext> _context;
};

}  // namespace kestrova
