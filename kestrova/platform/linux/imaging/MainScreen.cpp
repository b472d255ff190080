#include <kestrova/platform/linux/imaging/MainScreen.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace kestrova {
namespace {

std::string firstLine(const std::filesystem::path& file) {
  std::ifstream in(file);
  std::string line;
  std::getline(in, line);
  return line;
}

}  // namespace

std::optional<std::pair<int, int>> mainScreenSize(const std::filesystem::path& cards) {
  std::error_code error;
  std::vector<std::filesystem::path> connectors;
  for (std::filesystem::directory_iterator entry(cards, error), end; !error && entry != end;
       entry.increment(error))
    connectors.push_back(entry->path());
  std::sort(connectors.begin(), connectors.end());  // "card0-HDMI-A-1", "card0-eDP-1"
  for (const auto& connector : connectors) {
    if (firstLine(connector / "status") != "connected") continue;
    int width = 0;
    int height = 0;
    // The first mode is the one that the screen prefers.
    if (std::sscanf(firstLine(connector / "modes").c_str(), "%dx%d", &width, &height) == 2 &&
        width > 0 && height > 0)
      return std::pair(width, height);
  }
  return std::nullopt;
}

}  // namespace kestrova
