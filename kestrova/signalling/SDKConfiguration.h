#pragma once

#include <kestrova/platform/Values.h>

#include <mutex>
#include <string>

namespace kestrova {

/// Who this library says it is, and the log settings that the service sends back. Process-wide;
/// every field is read and written under one lock.
class SDKConfiguration {
public:
  static SDKConfiguration& shared();

  std::string sdkName() const;
  std::string sdkVersion() const;
  /// For a wrapper library that speaks under its own name.
  void setIdentity(std::string name, std::string version);

  bool logsEnabled() const;
  std::string logsEndpoint() const;
  /// The credential of the log and trace back end.
  std::string jwtKey() const;
  /// Takes over the service's "observability" settings. The log fields stay as they are when there
  /// is no "logs" map; the credential is written in any case.
  void updateTraceConfig(const Dictionary& observability);

private:
  mutable std::mutex _lock;
  std::string _sdkName = "iOS";
  std::string _sdkVersion = "3.2.0";
  bool _logsEnabled = false;
  std::string _logsEndpoint;
  std::string _jwtKey;
};

}  // namespace kestrova
