#pragma once

namespace kestrova {

/// Hears when the camera or the microphone is asked for but refused by the system.
class AuthorisationDelegate {
public:
  virtual ~AuthorisationDelegate() = default;
  /// Called on the thread of whoever asked.
  virtual void handlePermission() = 0;
};

}  // namespace kestrova
