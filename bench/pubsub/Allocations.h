#pragma once

#include <cstdint>

namespace kestrova::bench {

/// How often this program has taken memory with `new` so far.
std::uint64_t allocations();

}  // namespace kestrova::bench
