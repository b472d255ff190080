#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kestrova::broadcast {

/// A part of the screen, in pixels from its upper left corner.
struct Region {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;
};

/// What the command line asks for.
struct Options {
  std::string group = "kestrova";
  int fps = 15;
  int quality = 80;
  double scale = 1;
  std::optional<Region> region;
  std::optional<std::uint32_t> window;
  /// Size of the test picture; the screen without it.
  std::optional<Region> pattern;
  /// "x11" or "portal"; whichever is there without it.
  std::string source;
  bool lifeline = false;
  bool help = false;
  bool version = false;
};

/// What is wrong with the command line, in one line.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// \throws UsageError
Options parseOptions(const std::vector<std::string>& arguments);
std::string usageText();

}  // namespace kestrova::broadcast
