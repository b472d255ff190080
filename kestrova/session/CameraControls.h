#pragma once

#include <kestrova/session/CodecFallback.h>
#include <kestrova/session/LocalMedium.h>
#include <kestrova/session/ParticipantRegistry.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

class KestrovaVideoProcessor;

/// The local camera: permission, capture, publication, the local participant's stream that comes of
/// them, the choice among cameras, and the change to VP8 when somebody can't decode what is sent.
class CameraControls final : public LocalMedium {
public:
  CameraControls(std::shared_ptr<MeetingContext> context,
                 std::shared_ptr<ParticipantRegistry> registry);

  /// From the camera in front to the one in the back, and back; while it is off, for the next time.
  /// Without such a camera nothing changes but a line in the trace.
  void switchWebcam();
  /// Which camera the next capture takes.
  void selectPosition(CameraPosition position);

  /// What the pictures go through, from the next one on, until the camera is turned off.
  void setVideoProcessor(std::shared_ptr<KestrovaVideoProcessor> processor);

  /// What others in the room can't decode, as the service names codecs: for the next publication.
  void recordUnsupportedCodecs(const std::vector<std::string>& codecs);
  /// Somebody can't decode what is sent: publishes as VP8 instead, or remembers it for the next
  /// publication while the camera is off or being switched.
  void performVP8CodecFallback(VideoCodec unsupportedCodec, std::string kind,
                               const std::optional<std::string>& causedByPeerId);
  void switchRoomUnsupportedCodecs(const std::vector<std::string>& codecs);

private:
  class Republishing;
  static const Texts& texts();
  AuthorisationStatus permission() const override;
  Stream customStream() const override;
  void setCustomStream(Stream stream) override;
  Track trackOf(const CustomRTCMediaStream& stream) const override;
  void record(const Stream& custom) override;
  Task<Stream> capture(Connection connection, SpanScope span) override;
  Task<std::shared_ptr<Producer>> produce(Stream stream, Connection connection,
                                          SpanScope span) override;
  Task<std::string> close(std::optional<Connection> telling, SpanScope span) override;
  Task<std::optional<std::string>> cleanup() override;
  Task<void> releaseCapture(Track track) override;
  void turnedOff() override;
  void published() override;

  std::shared_ptr<MediaCapturer> runningCapturer() const;
  void passProcessor(MediaCapturer& capturer);
  std::shared_ptr<KestrovaVideoProcessor> videoProcessor() const;
  void handProcessorOn(MediaCapturer& capturer) const;
  Task<void> flipCamera();
  /// \param hasToggle whether toggles are refused as busy already
  Task<void> republish(CodecChangeInfo change, bool hasToggle);

  const std::shared_ptr<ParticipantRegistry> _registry;
  CodecFallback _fallback;
  mutable std::mutex _processorLock;
  std::shared_ptr<KestrovaVideoProcessor> _videoProcessor;  // under _processorLock
  // Under the turn.
  std::optional<CodecChangeInfo> _change;  // to be told when the publication stands
  bool _isRepublishing = false;
};

}  // namespace kestrova
