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

ConsumerControls::ConsumerControls(std::shared_ptr<RoomContext> context)
    : _context(std::move(context)) {}

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

}  // namespace kestrova
