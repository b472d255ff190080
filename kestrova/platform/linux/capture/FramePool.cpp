#include <kestrova/platform/linux/capture/FramePool.h>

namespace kestrova {
namespace {

/// Encoders and sinks hold two or three; more lying idle would be waste.
constexpr std::size_t kMostIdle = 4;

}  // namespace

FramePool::FramePool(int width, int height)
    : _width(width), _height(height), _shelf(std::make_shared<Shelf>()) {}

std::shared_ptr<I420Buffer> FramePool::take() {
  std::unique_ptr<I420Buffer> buffer;
  {
    std::scoped_lock held(_shelf->lock);
    if (!_shelf->buffers.empty()) {
      buffer = std::move(_shelf->buffers.back());
      _shelf->buffers.pop_back();
    }
  }
  if (!buffer) buffer = std::make_unique<I420Buffer>(_width, _height);
  auto giveBack = [weak = std::weak_ptr(_shelf)](I420Buffer* used) {
    std::unique_ptr<I420Buffer> owned(used);
    const auto shelf = weak.lock();
    if (!shelf) return;
    std::scoped_lock held(shelf->lock);
    if (shelf->buffers.size() < kMostIdle) shelf->buffers.push_back(std::move(owned));
  };
  return {buffer.release(), std::move(giveBack)};
}

}  // namespace kestrova
