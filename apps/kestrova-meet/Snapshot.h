#pragma once

#include <kestrova/platform/VideoFrame.h>

#include <filesystem>
#include <string>
#include <string_view>

namespace kestrova::meet {

/// A name made fit for a file name: letters, digits, '-' and '_'; never empty.
std::string fileNameOf(std::string_view name);

/// Writes the picture, turned upright, as PNG. \throws std::runtime_error with what went wrong
void writePng(const VideoFrame& frame, const std::filesystem::path& path);

}  // namespace kestrova::meet
