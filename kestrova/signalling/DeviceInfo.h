#pragma once

#include <kestrova/platform/Values.h>

#include <string>

namespace kestrova {

/// What the library tells the service about the device it runs on.
struct DeviceInfo {
  /// Major and minor number, and the patch number unless it is zero: "6.1", "6.1.3".
  static const std::string& osVersion();
  /// The hardware's name, as the system gives it.
  static std::string modelCode();
  /// The map of "sdkType", "sdkVersion", "platform" and "deviceUserAgent".
  static Dictionary toStringify();
};

}  // namespace kestrova
