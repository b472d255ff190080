#include <kestrova/session/MediumState.h>

#include <utility>

namespace kestrova {

std::optional<std::string> MediumState::ask(bool on, const Refusals& refusals) {
  std::scoped_lock held(_mediaStateLock);
  const char* refusal = _on == on ? refusals.alreadyThere : _isToggling ? refusals.busy : nullptr;
  if (!_isApplications) _wished = on;
  if (refusal) return refusal;
  _isToggling = _isApplications = true;
  return std::nullopt;
}

void MediumState::release() {
  std::scoped_lock held(_mediaStateLock);
  _isToggling = _isApplications = false;
}

bool MediumState::wished() const {
  std::scoped_lock held(_mediaStateLock);
  return _wished;
}

bool MediumState::isOn() const {
  std::scoped_lock held(_mediaStateLock);
  return _on;
}

bool MediumState::isApplicationToggling() const {
  std::scoped_lock held(_mediaStateLock);
  return _isApplications;
}

bool MediumState::started() {
  std::scoped_lock held(_mediaStateLock);
  if (_wished) _on = true;
  return _wished;
}

void MediumState::stopped() {
  std::scoped_lock held(_mediaStateLock);
  _on = false;
}

void MediumState::ended() {
  std::scoped_lock held(_mediaStateLock);
  _on = _wished = false;
}

bool MediumState::take() {
  std::scoped_lock held(_mediaStateLock);
  return !std::exchange(_isToggling, true);
}

bool MediumState::takeWhileOn() {
  std::scoped_lock held(_mediaStateLock);
  return _on && !std::exchange(_isToggling, true);
}

void MediumState::giveBack() {
  std::scoped_lock held(_mediaStateLock);
  if (!_isApplications) _isToggling = false;
}

}  // namespace kestrova
