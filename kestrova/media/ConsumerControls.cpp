#include <kestrova/media/ConsumerControls.h>
#include <kestrova/media/EncodingPresets.h>
#include <kestrova/signalling/Response.h>
#include <kestrova/tracing/Trace.h>

#include <boost/algorithm/string/case_conv.hpp>

#include <utility>

namespace kestrova {

struct ConsumerControls::ConsumerRequest {
  LocalEvent event;
  const char* span;
  const char* done;
  const char* failed;
  const KestrovaError& error;
};

struct ConsumerControls::AllStreamsRequest {
  LocalEvent event;
  const char* verb;
  const char* failed;
  const char* emitting;
  const char* done;
  const KestrovaError& error;
  void (RoomClientDelegate::*apply)(const std::string& kind);
};

struct ConsumerControls::AdaptiveRequest {
  LocalEvent event;
  const char* span;
  const char* done;
  const char* cause;
  const char* failed;
  const KestrovaError& error;
};

namespace {

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

}  // namespace

ConsumerControls::ConsumerControls(std::shared_ptr<RoomContext> context)
    : _context(std::move(context)) {}

// ---- One consumer ------------------------------------------------------------------------------

Task<void> ConsumerControls::pauseConsumer(std::string id) {
  static const ConsumerRequest row{.event = LocalEvent::pauseConsumer,
                                   .span = "Requesting to Pause Stream",
                                   .done = "Stream paused successfully",
                                   .failed = "Error in stream's pause() -> ",
                                   .error = KestrovaError::PAUSE_STREAM_FAILED};
  return ask(row, std::move(id));
}

Task<void> ConsumerControls::resumeConsumer(std::string id) {
  static const ConsumerRequest row{.event = LocalEvent::resumeConsumer,
                                   .span = "Requesting to Resume Stream",
                                   .done = "Stream resumed successfully",
                                   .failed = "Error in stream's resume() -> ",
                                   .error = KestrovaError::RESUME_STREAM_FAILED};
  return ask(row, std::move(id));
}

Task<void> ConsumerControls::ask(const ConsumerRequest& row, std::string consumerId) {
  const auto self = shared_from_this();
  ScopedSpan span(row.span);
  Dictionary data{{"consumerId", consumerId}};
  const Dictionary reply =
      co_await _context->socketRequestHandler->prepareAndSendRequest(row.event, std::move(data));
  if (const auto status = isStatusOK(reply); !status.ok) {
    span.fail(row.failed + status.failure);
    reportFailure(*_context, row.error.withCause(status.cause));
    co_return;
  }
  span.event(row.done);
}

Task<void> ConsumerControls::setQuality(VideoQuality quality, std::string consumerId,
                                        std::string participantId,
                                        std::function<void()> onRefused) {
  const auto self = shared_from_this();
  const auto layer = videoLayer("hd", text(quality)).value_or(SpatialTemporalLayer{});
  ScopedSpan span(
      [&] {
        return "Setting WebCam Quality to " +
               boost::algorithm::to_upper_copy(std::string(text(quality)));
      },
      {{"spatialLayers", layer.s}, {"temporalLayers", layer.t}},
      _context->spans.peer(participantId));
  Dictionary data{
      {"consumerId", consumerId}, {"spatialLayer", layer.s}, {"temporalLayer", layer.t}};
  const Dictionary reply = co_await _context->socketRequestHandler->prepareAndSendRequest(
      LocalEvent::setConsumerPreferredLayers, std::move(data));
  if (const auto status = isStatusOK(reply); !status.ok) {
    span.fail("Failed to set spatial and temporal layers for webcam with error: " + status.failure);
    onRefused();
    reportFailure(*_context, KestrovaError::SET_QUALITY_FAILED.withCause(status.cause));
    co_return;
  }
  span.event("Webcam quality set successfully");
}

// ---- All streams -------------------------------------------------------------------------------

Task<void> ConsumerControls::pauseAllStreams(std::string kind) {
  static const AllStreamsRequest row{.event = LocalEvent::pauseAllConsumers,
                                     .verb = "Pause All ",
                                     .failed = "Error in pauseAllStreams() -> ",
                                     .emitting = "Emitting PAUSED_ALL_STREAM Event",
                                     .done = " Streams paused successfully.",
                                     .error = KestrovaError::PAUSE_ALL_STREAMS_FAILED,
                                     .apply = &RoomClientDelegate::pauseAllStreams};
  return ask(row, std::move(kind));
}

Task<void> ConsumerControls::resumeAllStreams(std::string kind) {
  static const AllStreamsRequest row{.event = LocalEvent::resumeAllConsumers,
                                     .verb = "Resume All ",
                                     .failed = "Error in resumeAllStreams() -> ",
                                     .emitting = "Emitting RESUMED_ALL_STREAM Event",
                                     .done = " Streams resumed successfully.",
                                     .error = KestrovaError::RESUME_ALL_STREAMS_FAILED,
                                     .apply = &RoomClientDelegate::resumeAllStreams};
  return ask(row, std::move(kind));
}

Task<void> ConsumerControls::ask(const AllStreamsRequest& row, std::string kind) {
  const auto self = shared_from_this();
  const auto name = spoken(kind);
  ScopedSpan span([&] { return row.verb + name + " Stream Requested."; }, {{"kind", kind}});
  const auto connection = _context->connections->current();
  Dictionary data{{"kind", kind}};
  Dictionary reply =
      co_await _context->socketRequestHandler->prepareAndSendRequest(row.event, data, connection);
  // The service may have missed some consumers the first time; it gets one more chance.
  if (hasIssues(reply))
    reply = co_await _context->socketRequestHandler->prepareAndSendRequest(
        row.event, std::move(data), connection);
  if (const auto status = isStatusOK(reply); !status.ok) {
    span.fail(row.failed + status.failure);
    reportFailure(*_context, row.error.withCause(status.cause));
    co_return;
  }
  if (const auto delegate = _context->delegate()) ((*delegate).*row.apply)(kind);
  span.event(row.emitting, {{"kind", kind}});
  span.event([&] { return "All " + name + row.done; });
}

// ---- Adaptive subscription ---------------------------------------------------------------------

Task<void> ConsumerControls::enableAdaptiveSubscription() {
  static const AdaptiveRequest row{
      .event = LocalEvent::enableAdaptiveSubscription,
      .span = "Enable Adaptive Subscription Requested",
      .done = "Adaptive subscription enable request sent successfully.",
      .cause = "Error in enableAdaptiveSubscription() -> ",
      .failed = "Enable adaptive subscription failed.",
      .error = KestrovaError::ADAPTIVE_SUBSCRIPTION_ENABLE_FAILED};
  return ask(row);
}

Task<void> ConsumerControls::disableAdaptiveSubscription() {
  static const AdaptiveRequest row{
      .event = LocalEvent::disableAdaptiveSubscription,
      .span = "Disable Adaptive Subscription Requested",
      .done = "Adaptive subscription disable request sent successfully.",
      .cause = "Error in disableAdaptiveSubscription() -> ",
      .failed = "Disable adaptive subscription failed.",
      .error = KestrovaError::ADAPTIVE_SUBSCRIPTION_DISABLE_FAILED};
  return ask(row);
}

Task<void> ConsumerControls::ask(const AdaptiveRequest& row) {
  const auto self = shared_from_this();
  ScopedSpan span(row.span);
  const Dictionary reply =
      co_await _context->socketRequestHandler->prepareAndSendRequest(row.event);
  if (const auto status = isStatusOK(reply); !status.ok) {
    traceError([&] { return row.cause + status.failure + "."; }, {}, span.scope());
    span.fail(row.failed);
    reportFailure(*_context, row.error.withCause(status.cause));
    co_return;
  }
  span.event(row.done);
}

}  // namespace kestrova
