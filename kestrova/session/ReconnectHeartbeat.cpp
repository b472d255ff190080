#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Queue.h>
#include <kestrova/session/ReconnectHeartbeat.h>

namespace kestrova {

std::shared_ptr<ReconnectHeartbeat> ReconnectHeartbeat::begin(Beat beat) {
  auto heartbeat = std::make_shared<ReconnectHeartbeat>(std::move(beat));
  heartbeat->schedule();
  return heartbeat;
}

void ReconnectHeartbeat::schedule() {
  _timer = Platform::current()->scheduler->after(interval, [weak = weak_from_this()] {
    MainQueue::shared().async([weak] {
      const auto self = weak.lock();
      if (self && self->_beat()) self->schedule();
    });
  });
}

}  // namespace kestrova
