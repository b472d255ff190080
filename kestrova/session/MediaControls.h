#pragma once

#include <kestrova/session/MeetingContext.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kestrova {

/// The local microphone and camera: permission, capture, publication, and the local participant's
/// streams that come of them. Failures are reported through `onError`.
class MediaControls : public std::enable_shared_from_this<MediaControls> {
public:
  explicit MediaControls(std::shared_ptr<MeetingContext> context);

  /// The live wishes; what a reconnection restores.
  bool micOn() const;
  bool camOn() const;

  /// Clears what an earlier connection left, then starts microphone and camera as wished and as the
  /// mode allows.
  /// \param unsupportedCodecs what others in the room can't decode, as the service names codecs
  Task<void> startWishedMedia(Mode mode, std::vector<std::string> unsupportedCodecs,
                              std::optional<SpanScope> joinSpan);

  /// \param audioMediaStream the application's own track; without one the microphone is captured
  Task<void> startAudio(std::shared_ptr<CustomRTCMediaStream> audioMediaStream,
                        SpanScope parentSpan);
  Task<void> stopAudio(SpanScope parentSpan);
  Task<void> startVideo(std::shared_ptr<CustomRTCMediaStream> videoMediaStream,
                        SpanScope parentSpan);
  Task<void> stopVideo(SpanScope parentSpan);

private:
  Task<void> cleanup();
  Task<void> startWishedAudio(Mode mode, std::optional<SpanScope> joinSpan);
  Task<void> startWishedVideo(Mode mode, std::optional<SpanScope> joinSpan);
  void recordUnsupportedCodecs(const std::vector<std::string>& codecs);
  std::shared_ptr<CustomRTCMediaStream> buildAudioStream(const AudioConfigSnapshot& config);
  Task<std::shared_ptr<CustomRTCMediaStream>> buildVideoStream(VideoConfigSnapshot config);
  Task<void> produceAudio(std::shared_ptr<CustomRTCMediaStream> stream, SpanScope span);
  Task<void> produceVideo(std::shared_ptr<CustomRTCMediaStream> stream, SpanScope span);
  std::optional<CodecChangeInfo> fallBackToVP8(CustomRTCMediaStream& stream, const SpanScope& span);
  bool stopIfOver();
  bool permitted(AuthorisationStatus status, const KestrovaError& error, const SpanScope& span);

  const std::shared_ptr<MeetingContext> _context;

  mutable std::mutex _mediaStateLock;
  bool _isVideoToggling = false;
  bool _micOn;
  bool _camOn;
};

}  // namespace kestrova
