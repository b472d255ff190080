#pragma once

#include <kestrova/monitoring/Probe.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace kestrova {

/// The probes of one room client. Thread-safe.
class KestrovaMetrics {
public:
  explicit KestrovaMetrics(KestrovaMetricsConfig config) : _config(std::move(config)) {}

  /// A probe that is kept here until `removeAllProbes` or `remove`. The caller gives it a delegate
  /// and starts it.
  std::shared_ptr<Probe> addNewProbe(MonitoringObject monitoringObject);
  /// Stops it, and lets go of it.
  void remove(const std::shared_ptr<Probe>& probe);
  void removeAllProbes();

private:
  const KestrovaMetricsConfig _config;
  std::mutex _probesLock;
  std::map<std::string, std::shared_ptr<Probe>> _probes;
};

}  // namespace kestrova
