#include <kestrova/signalling/Response.h>
#include <kestrova/signalling/ServiceRequests.h>
#include <kestrova/tracing/Trace.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

namespace kestrova {
namespace {

using Operation = ServiceOperation;

const std::array<ServiceRow, 24>& serviceRows() {
  static const std::array<ServiceRow, 24> rows{{
      {.operation = Operation::startRecording,
       .method = "startRecording",
       .request = LocalEvent::startRecording,
       .span = "Start Recording Requested",
       .done = "Start recording request sent successfully",
       .cause = "Error in startRecording() -> ",
       .failed = "Start recording failed.",
       .error = &KestrovaError::START_RECORDING_FAILED},
      {.operation = Operation::stopRecording,
       .method = "stopRecording",
       .request = LocalEvent::stopRecording,
       .span = "Stop Recording Requested",
       .done = "Stop recording request sent successfully",
       .cause = "Error in stopRecording() -> ",
       .failed = "Stop recording failed.",
       .error = &KestrovaError::STOP_RECORDING_FAILED},
      {.operation = Operation::startLivestream,
       .method = "startLivestream",
       .request = LocalEvent::startLivestream,
       .span = "Start RTMP Livestreaming Requested",
       .done = "Start RTMP Livestreaming request sent successfully",
       .cause = "Error in startLivestream() -> ",
       .failed = "Start RTMP live stream failed",
       .error = &KestrovaError::START_LIVESTREAM_FAILED},
      {.operation = Operation::stopLivestream,
       .method = "stopLivestream",
       .request = LocalEvent::stopLivestream,
       .span = "Stop RTMP Livestreaming Requested",
       .done = "Stop RTMP Livestreaming request sent successfully",
       .cause = "Error in stopLivestream() -> ",
       .failed = "Stop RTMP live stream failed",
       .error = &KestrovaError::STOP_LIVESTREAM_FAILED},
      {.operation = Operation::startHLS,
       .method = "startHLS",
       .request = LocalEvent::startHls,
       .span = "Start HLS Requested",
       .done = "Start HLS streaming request sent successfully",
       .cause = "Error in startHLS() -> ",
       .failed = "Start HLS failed.",
       .error = &KestrovaError::START_HLS_FAILED},
      {.operation = Operation::stopHLS,
       .method = "stopHLS",
       .request = LocalEvent::stopHls,
       .span = "Stop HLS Requested",
       .done = "Stop HLS streaming request sent successfully",
       .cause = "Error in stopHLS() -> ",
       .failed = "Stop HLS failed.",
       .error = &KestrovaError::STOP_HLS_FAILED},
      {.operation = Operation::startTranscription,
       .method = "startTranscription",
       .request = LocalEvent::startTranscription,
       .span = "Start Transcription Requested",
       .done = "Start transcription requested successfully",
       .cause = "Error in startTranscription() -> ",
       .failed = "Start transcription failed.",
       .error = &KestrovaError::START_TRANSCRIPTION_FAILED},
      {.operation = Operation::stopTranscription,
       .method = "stopTranscription",
       .request = LocalEvent::stopTranscription,
       .span = "Stop Transcription Requested",
       .done = "Stop transcription requested successfully",
       .cause = "Error in stopTranscription() -> ",
       .failed = "Stop transcription failed.",
       .error = &KestrovaError::STOP_TRANSCRIPTION_FAILED},
      {.operation = Operation::startWhiteboard,
       .method = "startWhiteboard",
       .request = LocalEvent::startWhiteboard,
       .span = "Start Whiteboard Requested",
       .done = "Whiteboard start request sent successfully",
       .cause = "Error in startWhiteboard() -> ",
       .failed = "Start whiteboard failed.",
       .error = &KestrovaError::START_WHITEBOARD_FAILED},
      {.operation = Operation::stopWhiteboard,
       .method = "stopWhiteboard",
       .request = LocalEvent::stopWhiteboard,
       .span = "Stop Whiteboard Requested",
       .done = "Whiteboard stop request sent successfully",
       .cause = "Error in stopWhiteboard() -> ",
       .failed = "Stop whiteboard failed.",
       .error = &KestrovaError::STOP_WHITEBOARD_FAILED},
      {.operation = Operation::pauseAllStreams,
       .method = "pauseAllStreams",
       .request = LocalEvent::pauseAllConsumers,
       .span = "Pause All ",
       .done = " Streams paused successfully.",
       .cause = "Error in pauseAllStreams() -> ",
       .error = &KestrovaError::PAUSE_ALL_STREAMS_FAILED},
      {.operation = Operation::resumeAllStreams,
       .method = "resumeAllStreams",
       .request = LocalEvent::resumeAllConsumers,
       .span = "Resume All ",
       .done = " Streams resumed successfully.",
       .cause = "Error in resumeAllStreams() -> ",
       .error = &KestrovaError::RESUME_ALL_STREAMS_FAILED},
      {.operation = Operation::enableAdaptiveSubscription,
       .method = "enableAdaptiveSubscription",
       .request = LocalEvent::enableAdaptiveSubscription,
       .span = "Enable Adaptive Subscription Requested",
       .done = "Adaptive subscription enable request sent successfully.",
       .cause = "Error in enableAdaptiveSubscription() -> ",
       .causeEnd = ".",
       .failed = "Enable adaptive subscription failed.",
       .error = &KestrovaError::ADAPTIVE_SUBSCRIPTION_ENABLE_FAILED},
      {.operation = Operation::disableAdaptiveSubscription,
       .method = "disableAdaptiveSubscription",
       .request = LocalEvent::disableAdaptiveSubscription,
       .span = "Disable Adaptive Subscription Requested",
       .done = "Adaptive subscription disable request sent successfully.",
       .cause = "Error in disableAdaptiveSubscription() -> ",
       .causeEnd = ".",
       .failed = "Disable adaptive subscription failed.",
       .error = &KestrovaError::ADAPTIVE_SUBSCRIPTION_DISABLE_FAILED},
      {.operation = Operation::switchTo,
       .method = "switchTo",
       .request = LocalEvent::switchToMeeting,
       .span = "Requesting to switch meeting",
       .done = "Meeting switch request sent successfully",
       .cause = "Error in switchTo() -> ",
       .error = &KestrovaError::SWITCH_MEETING_FAILED},
      {.operation = Operation::requestMediaRelay,
       .method = "requestMediaRelay",
       .request = LocalEvent::mediaRelayRequestSent,
       .span = "Requesting to send media relay",
       .done = "Media relay request sent successfully",
       .cause = "Error in requestMediaRelay() -> ",
       .error = &KestrovaError::REQUEST_MEDIA_RELAY_FAILED},
      {.operation = Operation::handleRelayRequestResponse,
       .method = "handleRelayRequestResponse",
       .request = LocalEvent::respondToMediaRelayRequest,
       .span = "Requesting to send response of media relay request",
       .done = "Response of media relay request sent successfully",
       .cause = "Error in handleRelayRequestResponse() -> ",
       .error = &KestrovaError::RESPOND_MEDIA_RELAY_REQUEST_FAILED},
      {.operation = Operation::stopMediaRelay,
       .method = "stopMediaRelay",
       .request = LocalEvent::mediaRelayRequestStop,
       .span = "Requesting to stop media relay",
       .done = "Media relay stop request sent successfully",
       .cause = "Error in stopMediaRelay() -> ",
       .error = &KestrovaError::STOP_MEDIA_RELAY_FAILED},
      {.operation = Operation::enableRelayMedia,
       .method = "enableRelayMedia",
       .request = LocalEvent::enableRelayMedia,
       .span = "Requesting to enable relay media",
       .done = "Relay media enable request sent successfully",
       .cause = "Error in enableRelayMedia() -> "},
      {.operation = Operation::disableRelayMedia,
       .method = "disableRelayMedia",
       .request = LocalEvent::disableRelayMedia,
       .span = "Requesting to disable relay media",
       .done = "Relay media disable request sent successfully",
       .cause = "Error in disableRelayMedia() -> "},
      {.operation = Operation::joinCharacter,
       .method = "join",
       .request = LocalEvent::joinCharacter,
       .span = "Requesting to join character",
       .done = "Character join request sent successfully",
       .cause = "Error in character's join() -> ",
       .error = &KestrovaError::CHARACTER_JOIN_FAILED},
      {.operation = Operation::leaveCharacter,
       .method = "leave",
       .request = LocalEvent::leaveCharacter,
       .span = "Requesting to remove character",
       .done = "Character leave request sent successfully",
       .cause = "Error in character's leave() -> ",
       .error = &KestrovaError::CHARACTER_LEAVE_FAILED},
      {.operation = Operation::sendCharacterMessage,
       .method = "sendMessage",
       .request = LocalEvent::sendCharacterMessage,
       .span = "Requesting to send message to character",
       .done = "Character message sent successfully",
       .cause = "Error in character's sendMessage() -> "},
      {.operation = Operation::interruptCharacter,
       .method = "interrupt",
       .request = LocalEvent::interruptCharacter,
       .span = "Requesting to interrupt character",
       .done = "Character interrupt request sent successfully",
       .cause = "Error in character's interrupt() -> "},
  }};
  return rows;
}

/// A kind as it reads within a sentence.
std::string spoken(std::string kind) {
  if (kind == "all") return "Media";
  if (!kind.empty() && kind[0] >= 'a' && kind[0] <= 'z')
    kind[0] = static_cast<char>(kind[0] - 'a' + 'A');
  return kind;
}

bool hasIssues(const Dictionary& reply) {
  const auto* data = dictionary(reply, "data");
  const auto* issues = data ? list(*data, "consumersWithIssues") : nullptr;
  return issues && !issues->empty();
}

std::vector<TraceAttribute> listed(const TraceAttributes& attributes) {
  std::vector<TraceAttribute> items;
  for (const auto& [key, value] : attributes) items.push_back({key, value});
  return items;
}

}  // namespace

const ServiceRow& serviceRow(ServiceOperation operation) {
  return serviceRows().at(static_cast<std::size_t>(operation));
}

void ServiceRequests::send(ServiceOperation operation, Dictionary data, Extras extras) {
  auto task = [](std::shared_ptr<ServiceRequests> self, ServiceOperation what, Dictionary body,
                 Extras with) -> Task<void> {
    auto asking = self->ask(what, std::move(body), std::move(with));
    co_await std::move(asking);
  };
  _context->inOrder(task(shared_from_this(), operation, std::move(data), std::move(extras)));
}

Task<bool> ServiceRequests::ask(ServiceOperation operation, Dictionary data, Extras extras) {
  const auto self = shared_from_this();
  const auto& row = serviceRow(operation);
  ScopedSpan span(row.span, std::span<const TraceAttribute>(listed(extras.attributes)));
  auto asking = _context->socketRequestHandler->prepareAndSendRequest(
      row.request, std::move(data), std::nullopt, std::move(extras.onArrival));
  const Dictionary reply = co_await std::move(asking);
  if (!judge(row, reply, span, extras.secrets)) co_return false;
  span.event(row.done);
  co_return true;
}

bool ServiceRequests::judge(const ServiceRow& row, const Dictionary& reply, ScopedSpan& span,
                            const std::vector<std::string>& secrets) {
  const auto status = isStatusOK(reply, secrets);
  if (status.ok) return true;
  auto cause = row.cause + status.failure + row.causeEnd;
  if (row.failed) traceError(cause, {}, span.scope());
  span.fail(row.failed ? row.failed : std::move(cause));
  if (row.error) reportFailure(*_context, row.error->withCause(status.cause));
  return false;
}

// ---- All streams -------------------------------------------------------------------------------

struct ServiceRequests::AllStreams {
  ServiceOperation operation;
  const char* emitting;
  void (RoomClientDelegate::*apply)(const std::string& kind);
};

Task<void> ServiceRequests::pauseAllStreams(std::string kind) {
  static const AllStreams texts{.operation = Operation::pauseAllStreams,
                                .emitting = "Emitting PAUSED_ALL_STREAM Event",
                                .apply = &RoomClientDelegate::pauseAllStreams};
  return askForAllStreams(texts, std::move(kind));
}

Task<void> ServiceRequests::resumeAllStreams(std::string kind) {
  static const AllStreams texts{.operation = Operation::resumeAllStreams,
                                .emitting = "Emitting RESUMED_ALL_STREAM Event",
                                .apply = &RoomClientDelegate::resumeAllStreams};
  return askForAllStreams(texts, std::move(kind));
}

int ServiceRequests::noteAllStreams(const std::string& kind) {
  std::scoped_lock held(_lock);
  return _newestOfKind[kind] = ++_allStreamsAsked;
}

bool ServiceRequests::isSuperseded(const std::string& kind, int number) const {
  std::scoped_lock held(_lock);
  return std::any_of(_newestOfKind.begin(), _newestOfKind.end(), [&](const auto& newest) {
    const bool isSame = newest.first == kind || newest.first == "all" || kind == "all";
    return isSame && newest.second > number;
  });
}

Task<void> ServiceRequests::askForAllStreams(const AllStreams& texts, std::string kind) {
  const auto self = shared_from_this();
  const auto& row = serviceRow(texts.operation);
  const auto name = spoken(kind);
  ScopedSpan span([&] { return row.span + name + " Stream Requested."; }, {{"kind", kind}});
  const auto connection = _context->connections->current();
  const int number = noteAllStreams(kind);
  Dictionary data{{"kind", kind}};
  Dictionary reply =
      co_await _context->socketRequestHandler->prepareAndSendRequest(row.request, data, connection);
  // The service may have missed some consumers the first time; it gets one more chance, unless
  // something else is wished by now.
  if (hasIssues(reply) && !isSuperseded(kind, number))
    reply = co_await _context->socketRequestHandler->prepareAndSendRequest(
        row.request, std::move(data), connection);
  if (!judge(row, reply, span)) co_return;
  if (const auto delegate = _context->delegate()) ((*delegate).*texts.apply)(kind);
  span.event(texts.emitting, {{"kind", kind}});
  span.event([&] { return "All " + name + row.done; });
}

}  // namespace kestrova
