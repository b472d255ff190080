#pragma once

#include <kestrova/session/ParticipantRegistry.h>
#include <kestrova/session/PublishedMedium.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

/// The local camera: permission, capture, publication, the local participant's stream that comes of
/// them, and the change to VP8 when somebody can't decode what is sent. Failures are reported
/// through `onError`.
class CameraControls : public std::enable_shared_from_this<CameraControls> {
public:
  CameraControls(std::shared_ptr<MeetingContext> context,
                 std::shared_ptr<ParticipantRegistry> registry);

  /// The application's toggles; the guard has let them through. They return at once.
  void enableWebcam(std::shared_ptr<CustomRTCMediaStream> customVideoStream);
  void disableWebcam();
  /// From the camera in front to the one in the back, and back.
  void switchWebcam();
  /// Which camera the next capture takes.
  void selectPosition(CameraPosition position);

  /// Starts it as wished and as the mode allows, and takes it down where it must not be on.
  /// \param unsupportedCodecs what others in the room can't decode, as the service names codecs
  Task<void> startWished(Mode mode, std::vector<std::string> unsupportedCodecs,
                         std::optional<SpanScope> parentSpan);
  /// \param videoMediaStream the application's own track; without one the camera is captured
  /// \returns whether it is published now
  Task<bool> startVideo(std::shared_ptr<CustomRTCMediaStream> videoMediaStream,
                        SpanScope parentSpan);
  Task<void> stopVideo(SpanScope parentSpan);
  /// The device ended by itself.
  void captureFailed(std::string error);

  /// Somebody can't decode what is sent: publishes as VP8 instead, or remembers it for the next
  /// publication while the camera is off or being switched.
  void performVP8CodecFallback(VideoCodec unsupportedCodec, std::string kind,
                               const std::optional<std::string>& causedByPeerId);
  void switchRoomUnsupportedCodecs(const std::vector<std::string>& codecs);

private:
  Task<bool> enable(std::shared_ptr<CustomRTCMediaStream> custom,
                    std::optional<SpanScope> parentSpan);
  Task<void> disable();
  Task<void> endAfterFailure(std::string error);
  Task<void> flipCamera();
  void recordUnsupportedCodecs(const std::vector<std::string>& codecs);
  Task<std::shared_ptr<CustomRTCMediaStream>> buildVideoStream(VideoConfigSnapshot config);
  Task<bool> produceVideo(std::shared_ptr<CustomRTCMediaStream> stream, SpanScope span);
  std::optional<CodecChangeInfo> fallBackToVP8(CustomRTCMediaStream& stream, const SpanScope& span);
  Task<void> republishAsVP8(CodecChangeInfo change);
  std::string reasonText(VideoCodec unsupported,
                         const std::shared_ptr<Participant>& causedBy) const;
  void emitCodecChangedEvent(const CodecChangeInfo& change);
  std::shared_ptr<Participant> codecChangeParticipant() const;

  const std::shared_ptr<MeetingContext> _context;
  const std::shared_ptr<ParticipantRegistry> _registry;
  MediumState _state;

  mutable std::mutex _unsupportedCodecsLock;
  std::shared_ptr<Participant> _codecChangeParticipant;
  std::string _codecChangePeerId;
};

}  // namespace kestrova
