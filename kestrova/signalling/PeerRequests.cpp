#include <kestrova/signalling/PeerRequests.h>
#include <kestrova/signalling/Response.h>
#include <kestrova/tracing/Trace.h>

#include <array>
#include <stdexcept>
#include <utility>

namespace kestrova {

/// What is said, and reported, about one request.
struct PeerRequests::Row {
  LocalEvent request;
  const char* span;
  const char* operation;
  KestrovaError error;
};

const PeerRequests::Row& PeerRequests::row(LocalEvent request) {
  static const std::array<Row, 5> rows{{
      {LocalEvent::enablePeerMic, "Requesting to enable participant's microphone", "enableMic",
       KestrovaError::ENABLE_PARTICIPANT_MIC_FAILED},
      {LocalEvent::disablePeerMic, "Requesting to disable participant's microphone", "disableMic",
       KestrovaError::DISABLE_PARTICIPANT_MIC_FAILED},
      {LocalEvent::enablePeerWebcam, "Requesting to enable participant's webcam", "enableWebcam",
       KestrovaError::ENABLE_PARTICIPANT_WEBCAM_FAILED},
      {LocalEvent::disablePeerWebcam, "Requesting to disable participant's webcam", "disableWebcam",
       KestrovaError::DISABLE_PARTICIPANT_WEBCAM_FAILED},
      {LocalEvent::removePeer, "Requesting to remove participant", "remove",
       KestrovaError::REMOVE_PARTICIPANT_FAILED},
  }};
  for (const auto& candidate : rows)
    if (candidate.request == request) return candidate;
  throw std::invalid_argument("not a request about a participant");
}

Task<void> PeerRequests::ask(LocalEvent request, std::string peerId) {
  const auto self = shared_from_this();
  const auto& texts = row(request);
  ScopedSpan span(texts.span, {{"peerId", peerId}}, _context->spans.peer(peerId));
  Dictionary data{{"peerId", peerId}};
  const Dictionary reply =
      co_await _context->socketRequestHandler->prepareAndSendRequest(request, std::move(data));
  judge(reply, span, std::string("Error in ") + texts.operation + "() -> ",
        "Request sent successfully", texts.error);
}

Task<void> PeerRequests::respondEntry(std::string peerId, std::string decision) {
  const auto self = shared_from_this();
  ScopedSpan span([&] { return "Responding Entry for " + peerId; });
  const Dictionary reply =
      co_await _context->socketRequestHandler->respondEntry(peerId, std::move(decision));
  judge(reply, span,
        "Respond entry failed for " + peerId + " with error: ", "Entry responded successfully.",
        KestrovaError::RESPOND_ENTRY_FAILED);
}

Task<void> PeerRequests::participantPinStateChanged(std::string peerId, ParticipantPinState state,
                                                    bool pinning, std::function<void()> onRefused) {
  const auto self = shared_from_this();
  const auto described = state.toJson();
  ScopedSpan span(pinning ? "Requesting to pin participant" : "Requesting to unpin participant",
                  {{"peerId", peerId}, {"state", described}}, _context->spans.peer(peerId));
  Dictionary data{{"peerId", peerId}, {"state", described}};
  const Dictionary reply = co_await _context->socketRequestHandler->prepareAndSendRequest(
      LocalEvent::pinStateChanged, std::move(data));
  if (!judge(reply, span, pinning ? "Error in pin() -> " : "Error in unpin() -> ",
             "Pin state change request sent successfully",
             pinning ? KestrovaError::PIN_FAILED : KestrovaError::UNPIN_FAILED))
    onRefused();
}

bool PeerRequests::judge(const Dictionary& reply, ScopedSpan& span, std::string_view failure,
                         std::string_view success, const KestrovaError& error) {
  const auto status = isStatusOK(reply);
  if (status.ok) {
    span.event(success);
    return true;
  }
  span.fail(std::string(failure) + status.failure);
  reportFailure(*_context, error.withCause(status.cause));
  return false;
}

}  // namespace kestrova
