#pragma once

#include <kestrova/platform/linux/audio/SoundDevices.h>

#include <functional>
#include <memory>
#include <optional>

namespace kestrova {

/// Knows what devices the sound server has, for as long as it lives, on a thread of its own.
/// Without a server it looks for one again, up to every five seconds; while the process uses
/// neither microphone nor speaker it has no connection at all.
class DeviceMonitor {
public:
  /// The devices are known for the first time, or have changed. On the monitor's thread.
  /// \param before nothing for the first time
  using Changed =
      std::function<void(const std::optional<SoundDevices>& before, const SoundDevices& now)>;

  explicit DeviceMonitor(Changed changed);
  /// Waits for a call in progress, unless it comes from it.
  ~DeviceMonitor();
  DeviceMonitor(const DeviceMonitor&) = delete;
  DeviceMonitor& operator=(const DeviceMonitor&) = delete;

  /// Nothing while there is no connection.
  std::optional<SoundDevices> devices() const;

private:
  class Watch;
  const std::shared_ptr<Watch> _watch;
};

}  // namespace kestrova
