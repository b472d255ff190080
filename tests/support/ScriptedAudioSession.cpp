#include "ScriptedAudioSession.h"

#include <kestrova/platform/NotificationCenter.h>

namespace kestrova::test {

void ScriptedAudioSession::note(const std::string& operation, const std::string& how) {
  const bool wasBefore = _journal.count("audio." + operation) > 0;
  _journal.add("audio." + operation + ' ' + how);
  if (operation == fails || (operation == failsLater && wasBefore))
    throw AudioSessionError("not possible");
}

void ScriptedAudioSession::changeRoute(std::int64_t reason) {
  NotificationCenter::defaultCenter().post(AVAudioSessionRouteChangeNotification,
                                           {{AVAudioSessionRouteChangeReasonKey, reason}});
}

std::vector<AVAudioSessionPortDescription> ScriptedAudioSession::availableInputs() {
  _journal.add("audio.inputs " + currentCategory);
  return inputs;
}

void ScriptedAudioSession::setCategory(std::string_view category, std::string_view mode,
                                       AVAudioSessionRouteSharingPolicy routeSharingPolicy,
                                       AVAudioSessionCategoryOptions options) {
  note("category", std::string(category) + ' ' + std::to_string(options));
  currentCategory = category;
  currentMode = mode;
  currentPolicy = routeSharingPolicy;
  currentOptions = options;
}

void ScriptedAudioSession::setActive(bool active, AVAudioSessionSetActiveOptions options) {
  note("active", std::to_string(active) + ' ' + std::to_string(options));
  isActive = active;
}

void ScriptedAudioSession::overrideOutputAudioPort(AVAudioSessionPortOverride port) {
  note("output", std::string(text(port)));
  output = port;
}

void ScriptedAudioSession::setPreferredInput(
    const std::optional<AVAudioSessionPortDescription>& input) {
  note("input", input ? input->portName : "none");
  preferred = input;
}

std::shared_ptr<void> ScriptedAudioSession::watchRoute() {
  if (auto held = watch.lock()) return held;
  auto fresh = std::make_shared<int>();
  watch = fresh;
  return fresh;
}

void ScriptedCallObserver::setDelegate(std::weak_ptr<CXCallObserverDelegate> delegate,
                                       std::shared_ptr<Queue>) {
  _delegate = std::move(delegate);
  _journal.add(_delegate.expired() ? "calls.detach" : "calls.attach");
}

void ScriptedCallObserver::change(const CXCall& call) const {
  if (const auto delegate = _delegate.lock()) delegate->callObserver(*this, call);
}

}  // namespace kestrova::test
