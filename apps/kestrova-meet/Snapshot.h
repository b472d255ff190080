#pragma once

#include <kestrova/platform/VideoFrame.h>

#include <filesystem>

namespace kestrova::meet {

/// Writes the picture, turned upright, as PNG. \throws std::runtime_error with what went wrong
void writePng(const VideoFrame& frame, const std::filesystem::path& path);

}  // namespace kestrova::meet
