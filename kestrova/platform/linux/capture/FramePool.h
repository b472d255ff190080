#pragma once

#include <kestrova/platform/VideoFrame.h>

#include <memory>
#include <mutex>
#include <vector>

namespace kestrova {

/// Picture buffers that come back once nobody looks at them. Thread-safe; buffers may outlive it.
class FramePool {
public:
  FramePool(int width, int height);
  /// A buffer with undefined content.
  std::shared_ptr<I420Buffer> take();

private:
  struct Shelf {
    std::mutex lock;
    std::vector<std::unique_ptr<I420Buffer>> buffers;  // under lock
  };
  int _width;
  int _height;
  std::shared_ptr<Shelf> _shelf;
};

}  // namespace kestrova
