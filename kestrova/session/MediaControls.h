#pragma once

#include <kestrova/session/CameraControls.h>
#include <kestrova/session/MicrophoneControls.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

/// What the local participant publishes, as a whole: brings microphone and camera up as wished,
/// and takes everything down.
class MediaControls : public std::enable_shared_from_this<MediaControls> {
public:
  MediaControls(std::shared_ptr<MeetingContext> context,
                std::shared_ptr<ParticipantRegistry> registry);

  const std::shared_ptr<MicrophoneControls> microphone;
  const std::shared_ptr<CameraControls> camera;

  /// Clears what an earlier connection left, then starts microphone and camera as wished and as the
  /// mode allows.
  /// \param unsupportedCodecs what others in the room can't decode, as the service names codecs
  Task<void> startWishedMedia(Mode mode, std::vector<std::string> unsupportedCodecs,
                              std::optional<SpanScope> parentSpan);
  /// Stops screen share, webcam and microphone, in this order; the wishes stay as they are.
  Task<void> stopPublishing(std::optional<SpanScope> parentSpan);

private:
  /// Has a device that ends by itself end its stream.
  void watchCapture();
  Task<void> cleanup();

  const std::shared_ptr<MeetingContext> _context;
};

}  // namespace kestrova
