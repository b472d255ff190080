#pragma once

#include <kestrova/session/MeetingContext.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kestrova {

/// Whether one local medium is wanted, and whether it is just being switched. Thread-safe; a leaf
/// lock.
class MediumState {
public:
  explicit MediumState(bool wished) : _on(wished) {}

  /// The live wish; what a reconnection restores.
  bool on() const;
  void setOn(bool on);

  /// How a toggle is refused.
  struct Refusals {
    const char* alreadyThere;
    const char* busy;
  };
  /// Claims the switch to `on`, or gives the text of the refusal. A claim ends with `release`.
  std::optional<std::string> claimToggle(bool on, const Refusals& refusals);
  /// Claims a change while the medium is on and nothing else switches it.
  bool claimWhileOn();
  /// Marks it as being switched whatever it was; the result goes to `restore`.
  bool exchangeToggling(bool toggling);
  void release();

private:
  mutable std::mutex _mediaStateLock;
  bool _isToggling = false;
  bool _on;
};

/// Clears a claimed toggle when the operation that claimed it ends, in whatever way.
class ToggleClaim {
public:
  explicit ToggleClaim(MediumState& state) : _state(&state) {}
  ToggleClaim(const ToggleClaim&) = delete;
  ToggleClaim& operator=(const ToggleClaim&) = delete;
  ~ToggleClaim() { _state->release(); }

private:
  MediumState* _state;
};

/// Reports a refused permission. \returns whether the device may be used
bool permitted(MeetingContext& context, AuthorisationStatus status, const KestrovaError& error,
               const SpanScope& span);

/// Ends all capture once the meeting is over: the teardown may have gone by between two steps, and
/// what they captured must not run on. \returns whether it is over
bool stopIfOver(MeetingContext& context);

/// Takes the application's track, unless it was disposed of.
std::shared_ptr<CustomRTCMediaStream> liveVideo(std::shared_ptr<CustomRTCMediaStream> stream);
std::shared_ptr<CustomRTCMediaStream> liveAudio(std::shared_ptr<CustomRTCMediaStream> stream);
/// Ends a track that the library captures for the application; one that the application feeds is
/// the application's, and may be published again.
void disposeOwnCapture(const std::shared_ptr<CustomRTCMediaStream>& stream);

/// Tells `controls` when the device behind such a track ends by itself.
template <class Controls>
void endOnFailure(const std::shared_ptr<CustomRTCMediaStream>& stream,
                  std::weak_ptr<Controls> controls) {
  const auto capturer = stream ? stream->capturer() : nullptr;
  if (!capturer) return;
  capturer->onCaptureFailed([controls](MediaKind, const std::string& error) {
    if (const auto alive = controls.lock()) alive->captureFailed(error);
  });
}

}  // namespace kestrova
