#include <kestrova/media/CallObserverManager.h>
#include <kestrova/platform/NotificationCenter.h>
#include <kestrova/platform/Platform.h>

namespace kestrova {
namespace {

const char* eventOf(const CXCall& call) {
  if (call.hasEnded) return call.hasConnected ? "onExternalCallHangup" : "onExternalCallRejected";
  return call.hasConnected ? "onExternalCallAnswered" : "onExternalCallRinging";
}

std::shared_ptr<CallObserverManager> keptForEver(CallObserverManager& manager) {
  return {&manager, [](CallObserverManager*) {}};
}

}  // namespace

CallObserverManager& CallObserverManager::shared() {
  static auto& instance = *new CallObserverManager;
  return instance;
}

void CallObserverManager::startMonitoring() {
  static const auto& self = *new std::shared_ptr(keptForEver(shared()));
  std::scoped_lock held(_lock);
  if (++_monitorCount > 1) return;
  const auto platform = Platform::current();
  if (platform->makeCallObserver) _callObserver = platform->makeCallObserver();
  if (_callObserver) _callObserver->setDelegate(self);
}

void CallObserverManager::stopMonitoring() {
  std::shared_ptr<CXCallObserver> observer;  // goes outside the lock
  std::scoped_lock held(_lock);
  if (_monitorCount == 0 || --_monitorCount > 0) return;
  observer.swap(_callObserver);
  if (observer) observer->setDelegate({});
}

void CallObserverManager::callObserver(const CXCallObserver& /*observer*/,
                                       const CXCall& callChanged) {
  NotificationCenter::defaultCenter().post(
      externalCallDetectedNotification,
      {{"event", eventOf(callChanged)},
       {"callType", callChanged.isOutgoing ? "outgoing" : "incoming"}});
}

}  // namespace kestrova
