#include <kestrova/session/PublishedMedium.h>
#include <kestrova/tracing/Trace.h>

#include <utility>

namespace kestrova {

bool MediumState::on() const {
  std::scoped_lock held(_mediaStateLock);
  return _on;
}

void MediumState::setOn(bool on) {
  std::scoped_lock held(_mediaStateLock);
  _on = on;
}

std::optional<std::string> MediumState::claimToggle(bool on, const Refusals& refusals) {
  std::scoped_lock held(_mediaStateLock);
  if (_on == on) return refusals.alreadyThere;
  if (std::exchange(_isToggling, true)) return refusals.busy;
  return std::nullopt;
}

bool MediumState::claimWhileOn() {
  std::scoped_lock held(_mediaStateLock);
  if (!_on || _isToggling) return false;
  return _isToggling = true;
}

bool MediumState::exchangeToggling(bool toggling) {
  std::scoped_lock held(_mediaStateLock);
  return std::exchange(_isToggling, toggling);
}

void MediumState::release() {
  exchangeToggling(false);
}

bool permitted(MeetingContext& context, AuthorisationStatus status, const KestrovaError& error,
               const SpanScope& span) {
  if (status == AuthorisationStatus::authorized || status == AuthorisationStatus::notDetermined)
    return true;
  const auto line = error.message();
  traceError(line, {}, span);
  context.onError(error);
  return false;
}

bool stopIfOver(MeetingContext& context) {
  if (!context.isOver()) return false;
  context.roomClient()->capturer()->stop();
  return true;
}

std::shared_ptr<CustomRTCMediaStream> liveVideo(std::shared_ptr<CustomRTCMediaStream> stream) {
  return stream && stream->videoTrack() ? std::move(stream) : nullptr;
}

std::shared_ptr<CustomRTCMediaStream> liveAudio(std::shared_ptr<CustomRTCMediaStream> stream) {
  return stream && stream->audioTrack() ? std::move(stream) : nullptr;
}

void disposeOwnCapture(const std::shared_ptr<CustomRTCMediaStream>& stream) {
  if (stream && stream->capturer()) MediaCapturer::disposeCustomTrack(stream);
}

}  // namespace kestrova
