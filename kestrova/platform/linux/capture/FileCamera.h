#pragma once

#include <kestrova/platform/Capture.h>
#include <kestrova/platform/linux/capture/PictureSource.h>

#include <memory>
#include <string>
#include <vector>

namespace kestrova {

/// Whether a path is that of a file of pictures, by its extension.
bool isPictureFile(const std::string& path);

/// The file as a camera, once for each position, as an application may ask for either.
std::vector<AVCaptureDevice> fileCameras(const std::string& path);

/// The file behind one of `fileCameras`; nothing for any other camera.
///
/// The pictures come in the file's own size and at its own rate, or at `fps` a second where it has
/// none, and start over at the end.
std::unique_ptr<PictureSource> makeFileSource(const AVCaptureDevice& device, int fps);

}  // namespace kestrova
