#include <kestrova/model/RoomClientError.h>
#include <kestrova/session/MediaControls.h>
#include <kestrova/tracing/Trace.h>

#include <utility>

namespace kestrova {

MediaControls::MediaControls(std::shared_ptr<MeetingContext> context,
                             std::shared_ptr<ParticipantRegistry> registry)
    : microphone(std::make_shared<MicrophoneControls>(context)),
      camera(std::make_shared<CameraControls>(context, std::move(registry))),
      _context(std::move(context)) {}

void MediaControls::watchCapture() {
  _context->roomClient()->capturer()->onCaptureFailed(
      [weak = weak_from_this()](MediaKind kind, const std::string& error) {
        const auto self = weak.lock();
        if (!self) return;
        if (kind == MediaKind::audio)
          self->microphone->captureFailed(error);
        else
          self->camera->captureFailed(error);
      });
}

Task<void> MediaControls::startWishedMedia(Mode mode, std::vector<std::string> unsupportedCodecs,
                                           std::optional<SpanScope> parentSpan) {
  const auto self = shared_from_this();
  watchCapture();
  co_await cleanup();
  if (stopIfOver(*_context)) co_return;
  co_await microphone->startWished(mode, parentSpan);
  if (stopIfOver(*_context)) co_return;
  auto starting = camera->startWished(mode, std::move(unsupportedCodecs), parentSpan);
  co_await std::move(starting);
  stopIfOver(*_context);
}

Task<void> MediaControls::cleanup() {
  const auto client = _context->roomClient();
  const auto& local = _context->localParticipant;
  if (const auto gone = co_await client->cleanupAudio()) local->removeStream(*gone);
  if (const auto gone = co_await client->cleanupVideo()) local->removeStream(*gone);
  if (client->capturer()->isCameraRunning()) co_await client->capturer()->stopCamera();
}

Task<void> MediaControls::stopPublishing(std::optional<SpanScope> parentSpan) {
  const auto self = shared_from_this();
  {
    ScopedSpan span("Disabling Screen Share", {}, parentSpan);
    try {
      auto closing =
          _context->roomClient()->publishing()->closeLocalScreenShare(true, span.scope());
      _context->localParticipant->removeStream(co_await std::move(closing));
    } catch (const RoomClientFailure&) {
      // Nothing was shared.
    }
  }
  {
    ScopedSpan span("Disabling Webcam", {}, parentSpan);
    co_await camera->stopVideo(span.scope());
  }
  ScopedSpan span("Disabling Microphone", {}, parentSpan);
  co_await microphone->stopAudio(span.scope());
}

}  // namespace kestrova
