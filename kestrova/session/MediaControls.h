#pragma once

#include <kestrova/session/CameraControls.h>
#include <kestrova/session/MicrophoneControls.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

class ScreenShareControls;

/// What the local participant publishes, as a whole: brings microphone, camera and screen up as
/// wished, and takes everything down.
class MediaControls : public std::enable_shared_from_this<MediaControls> {
public:
  MediaControls(std::shared_ptr<MeetingContext> context,
                std::shared_ptr<ParticipantRegistry> registry);

  const std::shared_ptr<MicrophoneControls> microphone;
  const std::shared_ptr<CameraControls> camera;
  const std::shared_ptr<ScreenShareControls> screen;

  /// Clears what an earlier connection left, then starts microphone and camera as wished and as the
  /// mode allows; a screen that is shared goes on. Ends quietly when `connection` goes meanwhile.
  Task<void> startWishedMedia(Mode mode, Connection connection,
                              std::optional<SpanScope> parentSpan);
  /// Stops screen share, webcam and microphone, in this order; the wishes stay as they are.
  Task<void> stopPublishing(Connection connection, std::optional<SpanScope> parentSpan);

  /// Stops what is published after all, in a mode that has no sending.
  Task<void> stopStragglers(Connection connection, std::optional<SpanScope> parentSpan);

  /// The meeting is over: no camera or microphone that the library opened runs on, and no screen is
  /// sent.
  void releaseCustomStreams();

private:
  void watchCapture();

  const std::shared_ptr<MeetingContext> _context;
};

}  // namespace kestrova
