#include <kestrova/monitoring/KestrovaMetrics.h>

#include <utility>

namespace kestrova {

std::shared_ptr<Probe> KestrovaMetrics::addNewProbe(MonitoringObject monitoringObject) {
  auto probe = std::make_shared<Probe>(std::move(monitoringObject), _config);
  std::scoped_lock held(_probesLock);
  _probes.emplace(probe->id(), probe);
  return probe;
}

void KestrovaMetrics::remove(const std::shared_ptr<Probe>& probe) {
  if (!probe) return;
  probe->stop();
  std::scoped_lock held(_probesLock);
  _probes.erase(probe->id());
}

void KestrovaMetrics::removeAllProbes() {
  std::map<std::string, std::shared_ptr<Probe>> gone;  // go after the lock
  std::scoped_lock held(_probesLock);
  for (const auto& [id, probe] : _probes) probe->stop();
  gone.swap(_probes);
}

}  // namespace kestrova
