#include <kestrova/media/I420BufferPool.h>

#include <atomic>
#include <cstddef>

namespace kestrova {
namespace {

/// More than an encoder and its sinks hold. Whoever keeps pictures for good gets fresh ones.
constexpr std::size_t mostKept = 8;

}  // namespace

std::shared_ptr<I420Buffer> I420BufferPool::createPixelBuffer() {
  for (const auto& buffer : _all) {
    if (buffer.use_count() > 1) continue;
    // Whoever let go of it last has finished reading.
    std::atomic_thread_fence(std::memory_order_acquire);
    return buffer;
  }
  auto fresh = std::make_shared<I420Buffer>(_width, _height);
  if (_all.size() < mostKept) _all.push_back(fresh);
  return fresh;
}

}  // namespace kestrova
