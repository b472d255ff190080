#pragma once

#include <kestrova/platform/VideoFrame.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace kestrova {

/// Pixels of four bytes in memory of our own, row after row without padding. Written by whoever
/// made it, and not touched any more once it is shared.
class PixelBuffer final : public VideoFrameBuffer {
public:
  PixelBuffer(int width, int height);
  PixelFormat format() const override { return PixelFormat::bgra; }
  I420View i420() const override { return {}; }
  BGRAView bgra() const override;

  int width() const { return _width; }
  int height() const { return _height; }
  int stride() const;
  std::uint8_t* mutablePixels() { return _pixels.get(); }
  /// Nothing to be seen: every byte is 0.
  void clear();

private:
  const int _width;
  const int _height;
  // Not a vector: filling what is drawn over anyway would cost as much as half of a decoding.
  const std::unique_ptr<std::uint8_t[]> _pixels;
};

/// Makes pixel buffers, and takes back those that nobody looks at any more, so that a stream of
/// equal pictures allocates nothing. Thread-safe; buffers may outlive it.
class PixelBufferPool {
public:
  /// 8K. What says it is larger is a mistake, or somebody who wants memory wasted.
  static constexpr std::int64_t mostPixels = 7680LL * 4320;
  static constexpr int longestSide = 16'384;

  /// A buffer with undefined content; nothing for a size that makes no sense or is too large.
  std::shared_ptr<PixelBuffer> make(std::int64_t width, std::int64_t height);

private:
  struct Shelf {
    std::mutex lock;
    std::vector<std::unique_ptr<PixelBuffer>> buffers;  // under lock; all of one size
  };
  const std::shared_ptr<Shelf> _shelf = std::make_shared<Shelf>();
};

}  // namespace kestrova
