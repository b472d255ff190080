#pragma once

#include <kestrova/platform/Capture.h>

#include <linux/videodev2.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kestrova {

/// One way in which a camera delivers pictures.
struct CameraMode {
  std::uint32_t fourcc = 0;
  int width = 0;
  int height = 0;
  int fps = 0;
};

/// An open device file of Video4Linux. One thread at a time.
///
/// The calls are those of the kernel's Video for Linux API (linux/videodev2.h). It makes no picture
/// flow by itself, so that a camera which is capturing can be asked at the same time.
class V4l2Device {
public:
  /// Opens the file without waiting for anything; see `error`.
  explicit V4l2Device(const std::string& path);
  ~V4l2Device();
  V4l2Device(const V4l2Device&) = delete;
  V4l2Device& operator=(const V4l2Device&) = delete;

  bool isOpen() const { return _fd >= 0; }
  /// The errno of a file that could not be opened.
  int error() const { return _error; }
  int fd() const { return _fd; }

  /// Repeats an interrupted call. 0, or the errno.
  int control(unsigned long request, void* argument) const;

  /// Name and bus of a camera that streams; nothing for any other node, such as one of metadata.
  std::optional<v4l2_capability> camera() const;
  /// The modes whose pictures can be read.
  std::vector<CameraMode> modes() const;

private:
  std::vector<v4l2_frmsize_discrete> sizes(std::uint32_t fourcc) const;
  int highestRate(std::uint32_t fourcc, const v4l2_frmsize_discrete& size) const;

  int _fd;
  int _error;
};

/// The mode for pictures of `wanted` at most: fluent before large, large before small, then the one
/// that costs least to read. Of modes that are all larger the smallest; nothing when there is none.
std::optional<CameraMode> chooseMode(const std::vector<CameraMode>& modes,
                                     const CaptureFormat& wanted);

/// What an errno of a camera means, as a sentence for people.
std::string cameraErrorText(int error, const std::string& path);

}  // namespace kestrova
