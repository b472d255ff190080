#pragma once

#include <cstdint>

namespace kestrova::bench {

/// How often this program has taken memory with `new` so far.
std::uint64_t allocations();
/// Of these, those of 16 KiB and more: a plane of pixels, not a handle on one.
std::uint64_t largeAllocations();

}  // namespace kestrova::bench
