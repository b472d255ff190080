#pragma once

#include <string>
#include <vector>

namespace kestrova {

/// Which program sends the screen, and where the two processes meet.
struct ScreenShareConfig {
  /// Names the directory, of this user alone, in which they meet: up to 44 letters, digits,
  /// '.', '_', '-', and no dot first.
  /// A share whose program the library starts has one of its own below this name.
  std::string appGroupIdentifier = "kestrova";
  /// The program that sends the screen: a path, or a name that is looked for beside this program
  /// and in PATH. Empty: none is started, and whoever sends the screen is started by hand.
  std::string screenSharingExtension = "kestrova-broadcast";
  /// What it is started with besides, such as {"--fps", "30"}.
  std::vector<std::string> arguments = {};
};

}  // namespace kestrova
