#pragma once

#include <string>
#include <vector>

namespace kestrova {

/// A source of the sound server that records the world, not what a sink plays.
struct Microphone {
  /// Stable over restarts; what `makePulseMicrophone` takes.
  std::string name;
  /// For people.
  std::string description;
};

/// The microphones of the sound server; none without a server that answers within half a second.
/// Any thread; usually returns within milliseconds.
std::vector<Microphone> microphones();

}  // namespace kestrova
