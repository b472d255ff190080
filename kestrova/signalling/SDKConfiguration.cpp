#include <kestrova/signalling/SDKConfiguration.h>

#include <utility>

namespace kestrova {

SDKConfiguration& SDKConfiguration::shared() {
  static auto& instance = *new SDKConfiguration;
  return instance;
}

std::string SDKConfiguration::sdkName() const {
  std::scoped_lock held(_lock);
  return _sdkName;
}

std::string SDKConfiguration::sdkVersion() const {
  std::scoped_lock held(_lock);
  return _sdkVersion;
}

void SDKConfiguration::setIdentity(std::string name, std::string version) {
  std::scoped_lock held(_lock);
  _sdkName = std::move(name);
  _sdkVersion = std::move(version);
}

bool SDKConfiguration::logsEnabled() const {
  std::scoped_lock held(_lock);
  return _logsEnabled;
}

std::string SDKConfiguration::logsEndpoint() const {
  std::scoped_lock held(_lock);
  return _logsEndpoint;
}

std::string SDKConfiguration::jwtKey() const {
  std::scoped_lock held(_lock);
  return _jwtKey;
}

void SDKConfiguration::updateTraceConfig(const Dictionary& observability) {
  std::scoped_lock held(_lock);
  if (const auto* logs = dictionary(observability, "logs")) {
    _logsEnabled = boolean(*logs, "enabled", false);
    _logsEndpoint = text(*logs, "endPoint", "");
  }
  _jwtKey = text(observability, "jwt", "");
}

}  // namespace kestrova
