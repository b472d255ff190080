#pragma once

#include <kestrova/platform/Imaging.h>

#include <functional>
#include <optional>
#include <string>

namespace kestrova {

/// Fetches a picture, PNG or JPEG: http and https within 15 s, file at once, each of 16 MiB at
/// most. `completion` is called once, on the main queue, with the picture or with nothing when
/// there was none. Any thread.
void downloadImage(std::string url, std::function<void(std::optional<Image>)> completion);

}  // namespace kestrova
