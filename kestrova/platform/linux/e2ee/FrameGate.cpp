#include <kestrova/platform/linux/e2ee/FrameGate.h>

namespace kestrova::e2ee {

void FrameGate::setGuard(std::weak_ptr<FrameGuard> guard) {
  std::scoped_lock held(_lock);
  _guard = std::move(guard);
}

void FrameGate::Transform(std::unique_ptr<webrtc::TransformableFrameInterface> frame) {
  std::shared_ptr<FrameGuard> guard;
  Sink sink;
  {
    std::scoped_lock held(_lock);
    guard = _guard.lock();
    const auto own = _sinks.find(frame->GetSsrc());
    sink = own == _sinks.end() ? _sink : own->second;
  }
  if (sink && guard && guard->pass(*frame)) sink->OnTransformedFrame(std::move(frame));
}

void FrameGate::RegisterTransformedFrameCallback(Sink callback) {
  std::scoped_lock held(_lock);
  _sink.swap(callback);
}

void FrameGate::RegisterTransformedFrameSinkCallback(Sink callback, std::uint32_t ssrc) {
  std::scoped_lock held(_lock);
  _sinks[ssrc].swap(callback);
}

void FrameGate::UnregisterTransformedFrameCallback() {
  Sink spent;
  std::scoped_lock held(_lock);
  spent.swap(_sink);
}

void FrameGate::UnregisterTransformedFrameSinkCallback(std::uint32_t ssrc) {
  Sink spent;
  std::scoped_lock held(_lock);
  const auto found = _sinks.find(ssrc);
  if (found == _sinks.end()) return;
  spent.swap(found->second);
  _sinks.erase(found);
}

}  // namespace kestrova::e2ee
