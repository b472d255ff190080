#include <kestrova/platform/PixelBuffer.h>

#include <algorithm>
#include <utility>

namespace kestrova {
namespace {

constexpr int bytesPerBufferPixel = 4;
/// One that is drawn into and one that is still looked at; more lying idle would be waste.
constexpr std::size_t mostIdleBuffers = 2;

std::size_t sizeInBytes(int width, int height) {
  return static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * bytesPerBufferPixel;
}

}  // namespace

PixelBuffer::PixelBuffer(int width, int height)
    : _width(width), _height(height), _pixels(new std::uint8_t[sizeInBytes(width, height)]) {}

int PixelBuffer::stride() const {
  return _width * bytesPerBufferPixel;
}

BGRAView PixelBuffer::bgra() const {
  return {.pixels = _pixels.get(), .stride = stride(), .width = _width, .height = _height};
}

void PixelBuffer::clear() {
  std::fill_n(_pixels.get(), sizeInBytes(_width, _height), std::uint8_t{0});
}

std::shared_ptr<PixelBuffer> PixelBufferPool::make(std::int64_t width, std::int64_t height) {
  if (width < 1 || height < 1 || width > longestSide || height > longestSide ||
      width * height > mostPixels)
    return nullptr;
  const auto fits = [&](const PixelBuffer& buffer) {
    return buffer.width() == width && buffer.height() == height;
  };
  std::unique_ptr<PixelBuffer> buffer;
  std::vector<std::unique_ptr<PixelBuffer>> outgrown;
  {
    std::scoped_lock held(_shelf->lock);
    auto& idle = _shelf->buffers;
    if (!idle.empty() && !fits(*idle.back())) outgrown.swap(idle);
    if (!idle.empty()) {
      buffer = std::move(idle.back());
      idle.pop_back();
    }
  }
  if (!buffer)
    buffer = std::make_unique<PixelBuffer>(static_cast<int>(width), static_cast<int>(height));
  auto giveBack = [weak = std::weak_ptr(_shelf)](PixelBuffer* used) {
    std::unique_ptr<PixelBuffer> owned(used);
    const auto shelf = weak.lock();
    if (!shelf) return;
    std::scoped_lock held(shelf->lock);
    auto& idle = shelf->buffers;
    const bool isOfTheirSize = idle.empty() || (idle.back()->width() == owned->width() &&
                                                idle.back()->height() == owned->height());
    if (isOfTheirSize && idle.size() < mostIdleBuffers) idle.push_back(std::move(owned));
  };
  return {buffer.release(), std::move(giveBack)};
}

}  // namespace kestrova
