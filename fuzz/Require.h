#pragma once

#include <cstdio>
#include <cstdlib>

namespace kestrova::fuzz {

/// Stops the process where something doesn't hold, so that a fuzzer keeps the input.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

}  // namespace kestrova::fuzz
