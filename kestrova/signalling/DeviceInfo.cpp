#include <kestrova/platform/Platform.h>
#include <kestrova/signalling/DeviceInfo.h>
#include <kestrova/signalling/SDKConfiguration.h>

namespace kestrova {

const std::string& DeviceInfo::osVersion() {
  static const auto& version = *[] {
    const auto& system = Platform::current()->operatingSystem;
    auto* text = new std::string(std::to_string(system.major) + "." + std::to_string(system.minor));
    if (system.patch != 0) *text += "." + std::to_string(system.patch);
    return text;
  }();
  return version;
}

std::string DeviceInfo::modelCode() {
  return Platform::current()->operatingSystem.machine;
}

Dictionary DeviceInfo::toStringify() {
  // The service knows this client by these two constants, whatever system it runs on.
  const auto& configuration = SDKConfiguration::shared();
  return {
      {"sdkType", configuration.sdkName()},
      {"sdkVersion", configuration.sdkVersion()},
      {"platform", "ios"},
      {"deviceUserAgent", {{"model", modelCode()}, {"brand", "Apple"}, {"osVersion", osVersion()}}},
  };
}

}  // namespace kestrova
