#pragma once

#include <string>

namespace kestrova {

/// A microphone, as a person is shown it.
struct AudioDevice {
  /// What `Meeting::changeMic` takes.
  std::string deviceName;
  /// "speaker" for what is built in, "wired" for headphones, else what the platform calls it
  std::string deviceType;

  bool operator==(const AudioDevice&) const = default;
};

}  // namespace kestrova
