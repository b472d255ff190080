#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrova::segmentation {

/// Where the model is: what the environment variable KESTROVA_SEGMENTATION_MODEL says, else where
/// the build was told that it would be.
std::string modelPath();

/// The file's bytes. \throws std::runtime_error when it can't be read, or isn't the model that this
/// library was made for
std::vector<std::uint8_t> readModelFile(const std::string& path);

}  // namespace kestrova::segmentation
