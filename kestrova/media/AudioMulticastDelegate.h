#pragma once

#include <kestrova/media/AuthorisationDelegate.h>
#include <kestrova/model/MulticastDelegate.h>

namespace kestrova {

/// Passes on to several, each held weakly, that a permission is lacking. Thread-safe.
class AudioMulticastDelegate final : public AuthorisationDelegate {
public:
  MulticastDelegate<AuthorisationDelegate> multicastDelegate;

  void handlePermission() override {
    multicastDelegate.invoke([](AuthorisationDelegate& each) { each.handlePermission(); });
  }
};

}  // namespace kestrova
