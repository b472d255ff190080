#pragma once

#include <kestrova/session/PublishedMedium.h>

#include <memory>
#include <optional>

namespace kestrova {

/// The local microphone: permission, capture, publication, and the local participant's stream that
/// comes of them. Failures are reported through `onError`.
class MicrophoneControls : public std::enable_shared_from_this<MicrophoneControls> {
public:
  explicit MicrophoneControls(std::shared_ptr<MeetingContext> context);

  /// The application's toggles; the guard has let them through. They return at once.
  void unmuteMic(std::shared_ptr<CustomRTCMediaStream> customAudioStream);
  void muteMic();

  /// Starts it as wished and as the mode allows, and takes it down where it must not be on.
  Task<void> startWished(Mode mode, std::optional<SpanScope> parentSpan);
  /// \param audioMediaStream the application's own track; without one the microphone is captured
  /// \returns whether it is published now
  Task<bool> startAudio(std::shared_ptr<CustomRTCMediaStream> audioMediaStream,
                        SpanScope parentSpan);
  Task<void> stopAudio(SpanScope parentSpan);
  /// The device ended by itself.
  void captureFailed(std::string error);

private:
  Task<bool> enable(std::shared_ptr<CustomRTCMediaStream> custom,
                    std::optional<SpanScope> parentSpan);
  Task<void> disable();
  Task<void> endAfterFailure(std::string error);
  std::shared_ptr<CustomRTCMediaStream> buildAudioStream(const AudioConfigSnapshot& config);
  Task<bool> produceAudio(std::shared_ptr<CustomRTCMediaStream> stream, SpanScope span);

  const std::shared_ptr<MeetingContext> _context;
  MediumState _state;
};

}  // namespace kestrova
