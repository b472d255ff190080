#include <kestrova/platform/AudioSession.h>

namespace kestrova {

void RTCAudioSession::lockForConfiguration() {
  _configuration.lock();
  std::scoped_lock held(_lock);
  _owner = std::this_thread::get_id();
  ++_depth;
}

void RTCAudioSession::unlockForConfiguration() {
  requireLock();
  {
    std::scoped_lock held(_lock);
    if (--_depth == 0) _owner = {};
  }
  _configuration.unlock();
}

void RTCAudioSession::setConfiguration(const RTCAudioSessionConfiguration& configuration) {
  requireLock();
  _session->setCategory(configuration.category, configuration.mode, configuration.categoryOptions);
}

void RTCAudioSession::setActive(bool active) {
  requireLock();
  _session->setActive(active);
}

void RTCAudioSession::requireLock() const {
  std::scoped_lock held(_lock);
  if (_owner != std::this_thread::get_id())
    throw AudioSessionError("the audio session is not locked for configuration");
}

}  // namespace kestrova
