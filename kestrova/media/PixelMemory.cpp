#include <kestrova/media/PixelMemory.h>

#include <utility>

namespace kestrova {
namespace {

/// An encoder and its sinks hold two or three; more lying idle would be waste.
constexpr std::size_t mostIdle = 4;

}  // namespace

std::shared_ptr<std::uint8_t> PixelMemory::take(std::size_t size) {
  Block block;
  {
    std::scoped_lock held(_shelf->lock);
    auto& idle = _shelf->idle;
    if (!idle.empty() && idle.back().size != size) idle.clear();
    if (!idle.empty()) {
      block = std::move(idle.back());
      idle.pop_back();
    }
  }
  if (!block.bytes) block = {std::make_unique_for_overwrite<std::uint8_t[]>(size), size};
  auto giveBack = [weak = std::weak_ptr(_shelf), size](std::uint8_t* bytes) {
    Block used{std::unique_ptr<std::uint8_t[]>(bytes), size};
    const auto shelf = weak.lock();
    if (!shelf) return;
    std::scoped_lock held(shelf->lock);
    auto& idle = shelf->idle;
    const bool fits = idle.empty() || idle.back().size == size;
    if (fits && idle.size() < mostIdle) idle.push_back(std::move(used));
  };
  return {block.bytes.release(), std::move(giveBack)};
}

}  // namespace kestrova
