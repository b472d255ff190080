#pragma once

#include <kestrova/platform/VideoFrame.h>
#include <kestrova/platform/linux/capture/StopSignal.h>

#include <functional>
#include <string>

namespace kestrova {

/// Where a `ThreadedCamera` takes its pictures from. Made by the caller of `startCapture`, then
/// used and released on the capturing thread only; the release lets go of the device.
class PictureSource {
public:
  using Deliver = std::function<void(const VideoFrame&)>;
  virtual ~PictureSource() = default;
  /// Begins, or tells what went wrong. May hang together with its device.
  virtual std::string open() = 0;
  /// Delivers pictures until `stop` is raised, then gives an empty text; else why they ended.
  virtual std::string run(const StopSignal& stop, const Deliver& deliver) = 0;
};

}  // namespace kestrova
