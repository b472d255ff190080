#pragma once

#include <kestrova/platform/VideoFrame.h>

#include <memory>
#include <vector>

namespace kestrova {

/// Pictures of one size that are used again once nobody else looks at them. One thread at a time;
/// what it gave may outlive it, and be let go of on any thread.
class I420BufferPool {
public:
  I420BufferPool(int width, int height) : _width(width), _height(height) {}
  /// A picture with undefined content.
  std::shared_ptr<I420Buffer> createPixelBuffer();

private:
  const int _width;
  const int _height;
  std::vector<std::shared_ptr<I420Buffer>> _all;
};

}  // namespace kestrova
