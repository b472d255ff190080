#pragma once

#include <kestrova/platform/Capture.h>
#include <kestrova/platform/linux/capture/PictureSource.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

/// A camera and the device file that it has at the moment.
struct V4l2Camera {
  AVCaptureDevice device;
  std::string path;
};

/// The system's cameras in the order of their device files.
///
/// A camera's `uniqueId` is the place where it is connected, such as "usb-0000:00:14.0-5": it stays
/// the same when device files are numbered anew, and tells two equal cameras apart. Further cameras
/// at one place get "#2" and so on.
struct V4l2Listing {
  std::vector<V4l2Camera> cameras;
  /// Device files that are there, and those of them that may not be opened.
  int nodes = 0;
  int refused = 0;
};

/// Asks every device file; cameras that deliver nothing readable are left out.
V4l2Listing listCameras();

/// The cameras that `config.camera` stands for, "default" or one, with their positions: facing back
/// by `config.backCameras` (an expression that is none counts as its default, an empty one finds no
/// camera). As an application begins with the front camera, a camera named by the configuration
/// faces front, and so does the first one where all the others face back.
std::vector<AVCaptureDevice> camerasFor(const CaptureConfig& config);

/// Denied when there are cameras and none of them may be opened.
AuthorisationStatus authorizationFor(const CaptureConfig& config);

/// The camera of a `uniqueId`.
std::unique_ptr<PictureSource> makeV4l2Source(const AVCaptureDevice& device,
                                              const CaptureFormat& format, int fps);

}  // namespace kestrova
