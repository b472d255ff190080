#pragma once

#include <kestrova/session/MeetingContext.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kestrova {

/// What is known of codecs that others can't decode, and what is said when the camera is sent as
/// VP8 for their sake. Thread-safe.
class CodecFallback {
public:
  explicit CodecFallback(std::shared_ptr<MeetingContext> context) : _context(std::move(context)) {}

  /// Who asked for the change last; nobody in particular without an id.
  void setCause(std::shared_ptr<Participant> participant, std::optional<std::string> peerId);
  /// What is sent now, once a publication stands.
  void setSent(std::optional<VideoCodec> codec);
  bool isSentAsVP8() const;

  /// Makes a stream that is about to be published VP8 if its codec is one that somebody can't
  /// decode. \returns what is to be told then
  std::optional<CodecChangeInfo> apply(CustomRTCMediaStream& stream, const SpanScope& span) const;
  std::string reasonText(VideoCodec unsupported) const;
  void emitCodecChangedEvent(const CodecChangeInfo& change) const;

private:
  struct Cause {
    std::shared_ptr<Participant> participant;
    std::string peerId;
  };
  Cause cause() const;

  const std::shared_ptr<MeetingContext> _context;
  mutable std::mutex _lock;
  Cause _cause;
  std::optional<VideoCodec> _sent;
};

}  // namespace kestrova
