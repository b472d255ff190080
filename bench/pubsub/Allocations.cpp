#include "Allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

constexpr std::size_t large = 16 * 1024;
std::atomic<std::uint64_t> taken{0};
std::atomic<std::uint64_t> largeTaken{0};

void* take(std::size_t bytes) {
  taken.fetch_add(1, std::memory_order_relaxed);
  if (bytes >= large) largeTaken.fetch_add(1, std::memory_order_relaxed);
  if (void* memory = std::malloc(bytes ? bytes : 1)) return memory;
  throw std::bad_alloc();
}

}  // namespace

// The other forms of `new` and `delete` come down to these.
void* operator new(std::size_t bytes) {
  return take(bytes);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace kestrova::bench {

std::uint64_t allocations() {
  return taken.load(std::memory_order_relaxed);
}

std::uint64_t largeAllocations() {
  return largeTaken.load(std::memory_order_relaxed);
}

}  // namespace kestrova::bench
