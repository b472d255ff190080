#pragma once

#include <filesystem>
#include <optional>
#include <utility>

namespace kestrova {

/// Width and height in pixels of the first screen that is connected, as the kernel knows it, which
/// needs no display server. Nothing without one.
/// \param cards where the kernel lists its graphics cards and their connectors
std::optional<std::pair<int, int>> mainScreenSize(
    const std::filesystem::path& cards = "/sys/class/drm");

}  // namespace kestrova
