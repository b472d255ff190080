#include <kestrova/session/MediaControls.h>
#include <kestrova/session/ScreenShareControls.h>
#include <kestrova/tracing/Trace.h>

#include <utility>

namespace kestrova {

MediaControls::MediaControls(std::shared_ptr<MeetingContext> context,
                             std::shared_ptr<ParticipantRegistry> registry)
    : microphone(std::make_shared<MicrophoneControls>(context)),
      camera(std::make_shared<CameraControls>(context, std::move(registry))),
      screen(std::make_shared<ScreenShareControls>(context)),
      _context(std::move(context)) {}

/// Has a device that ends by itself end its stream.
void MediaControls::watchCapture() {
  _context->roomClient()->capturer()->onCaptureFailed(
      [weak = weak_from_this()](MediaKind kind, const std::shared_ptr<RTCMediaStreamTrack>& track,
                                const std::string& error) {
        const auto self = weak.lock();
        if (!self) return;
        if (kind == MediaKind::audio)
          self->microphone->captureEnded(track, error);
        else
          self->camera->captureEnded(track, error);
      });
}

Task<void> MediaControls::startWishedMedia(Mode mode, Connection connection,
                                           std::optional<SpanScope> parentSpan) {
  const auto self = shared_from_this();
  watchCapture();
  co_await microphone->clearEarlier(connection);
  co_await camera->clearEarlier(connection);
  co_await screen->clearEarlier(connection);
  auto startingMicrophone = microphone->startWished(mode, connection, parentSpan);
  co_await std::move(startingMicrophone);
  auto startingCamera = camera->startWished(mode, connection, parentSpan);
  co_await std::move(startingCamera);
  auto startingScreen = screen->resume(connection, parentSpan);
  co_await std::move(startingScreen);
}

void MediaControls::releaseCustomStreams() {
  microphone->releaseCustomStream();
  camera->releaseCustomStream();
  screen->end();
}

Task<void> MediaControls::stopStragglers(Connection connection,
                                         std::optional<SpanScope> parentSpan) {
  const auto self = shared_from_this();
  if (screen->isScreenSharingActive()) {
    auto stopping = screen->stopForMode(connection, parentSpan);
    co_await std::move(stopping);
  }
  const std::shared_ptr<LocalMedium> media[] = {camera, microphone};
  for (const auto& medium : media) {
    if (!medium->isPublished()) continue;
    auto stopping = medium->stopForMode(connection, parentSpan);
    co_await std::move(stopping);
  }
}

Task<void> MediaControls::stopPublishing(Connection connection,
                                         std::optional<SpanScope> parentSpan) {
  const auto self = shared_from_this();
  auto stoppingScreen = screen->stopForMode(connection, parentSpan);
  co_await std::move(stoppingScreen);
  auto stoppingCamera = camera->stopForMode(connection, parentSpan);
  co_await std::move(stoppingCamera);
  auto stoppingMicrophone = microphone->stopForMode(connection, parentSpan);
  co_await std::move(stoppingMicrophone);
}

}  // namespace kestrova
