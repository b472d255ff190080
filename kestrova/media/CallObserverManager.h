#pragma once

#include <kestrova/platform/CallObserver.h>

#include <memory>
#include <mutex>

namespace kestrova {

/// Its user info has "event", which is the name of a listener's operation, and "callType".
inline constexpr const char* externalCallDetectedNotification = "ExternalCallDetected";

/// Tells meetings of telephone calls outside of them, by that notification. One for the process;
/// it observes while anybody monitors. Thread-safe.
class CallObserverManager final : public CXCallObserverDelegate {
public:
  static CallObserverManager& shared();

  void startMonitoring();
  void stopMonitoring();

  void callObserver(const CXCallObserver& observer, const CXCall& callChanged) override;

private:
  CallObserverManager() = default;

  std::mutex _lock;
  std::shared_ptr<CXCallObserver> _callObserver;  // under _lock
  int _monitorCount = 0;                          // under _lock
};

/// Monitors for as long as it lives.
class CallMonitoring {
public:
  CallMonitoring() { CallObserverManager::shared().startMonitoring(); }
  ~CallMonitoring() { CallObserverManager::shared().stopMonitoring(); }
  CallMonitoring(const CallMonitoring&) = delete;
  CallMonitoring& operator=(const CallMonitoring&) = delete;
};

}  // namespace kestrova
