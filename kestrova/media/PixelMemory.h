#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace kestrova {

/// Memory for copies of pictures, which comes back once nobody looks at them. Thread-safe; what it
/// gave may outlive it.
class PixelMemory {
public:
  /// At least `size` bytes of undefined content.
  std::shared_ptr<std::uint8_t> take(std::size_t size);

private:
  struct Block {
    std::unique_ptr<std::uint8_t[]> bytes;
    std::size_t size = 0;
  };
  struct Shelf {
    std::mutex lock;
    std::vector<Block> idle;  // under lock; all of one size
  };
  std::shared_ptr<Shelf> _shelf = std::make_shared<Shelf>();
};

}  // namespace kestrova
