#pragma once

#include <string>

namespace kestrova {

struct Utils {
  /// Eight characters, each drawn uniformly from the letters of both cases and the digits.
  static std::string generatePeerId();
};

}  // namespace kestrova
