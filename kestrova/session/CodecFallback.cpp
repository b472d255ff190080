#include <kestrova/session/CodecFallback.h>
#include <kestrova/tracing/Trace.h>

#include <utility>

namespace kestrova {

void CodecFallback::setCause(std::shared_ptr<Participant> participant,
                             std::optional<std::string> peerId) {
  Cause cause{std::move(participant), std::move(peerId).value_or("")};
  std::scoped_lock held(_lock);
  std::swap(_cause, cause);
}

CodecFallback::Cause CodecFallback::cause() const {
  std::scoped_lock held(_lock);
  return _cause;
}

void CodecFallback::setSent(std::optional<VideoCodec> codec) {
  std::scoped_lock held(_lock);
  _sent = codec;
}

bool CodecFallback::isSentAsVP8() const {
  std::scoped_lock held(_lock);
  return _sent == VideoCodec::VP8;
}

std::optional<CodecChangeInfo> CodecFallback::apply(CustomRTCMediaStream& stream,
                                                    const SpanScope& span) const {
  const auto unsupported = _context->roomClient()->consuming()->unsupportedCodecs();
  const auto codec = stream.fields().videoCodec;
  if (unsupported.empty() || codec == VideoCodec::VP8) return std::nullopt;
  trace("Fallback to VP8 Codec", {{"reason", [&] { return reasonText(unsupported.front()); }}},
        span);
  stream.setVideoCodec(VideoCodec::VP8);
  stream.setMultiStream(_context->mediaConfigStore->requestedMultiStream());
  return CodecChangeInfo{.unsupportedCodec = unsupported.front(),
                         .currentCodec = VideoCodec::VP8,
                         .previousCodec = codec.value_or(VideoCodec::VP8),
                         .kind = "video",
                         .causedBy = cause().participant};
}

std::string CodecFallback::reasonText(VideoCodec unsupported) const {
  const auto [participant, peerId] = cause();
  const auto codec = std::string(text(unsupported));
  if (peerId.empty()) return "Due to one of the participant doesn't support " + codec + " Codec.";
  return "Due to Participant: " + (participant ? participant->displayName() : "N/A") + " (" +
         peerId + ") doesn't support " + codec + " Codec.";
}

void CodecFallback::emitCodecChangedEvent(const CodecChangeInfo& change) const {
  const auto traceIt = [change] {
    trace(
        "Emitting CODEC_CHANGED Event",
        {{"previousCodec", text(change.previousCodec)},
         {"currentCodec", text(change.currentCodec)},
         {"kind", change.kind},
         {"causedBy", [&] { return change.causedBy ? change.causedBy->toJsonString() : "N/A"; }}});
  };
  _context->emit(traceIt, [change](auto& listener) { listener.onCodecChanged(change); });
}

}  // namespace kestrova
