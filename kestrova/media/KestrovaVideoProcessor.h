#pragma once

#include <kestrova/platform/VideoFrame.h>

#include <optional>

namespace kestrova {

/// Changes the pictures of the local camera before anybody sees them: `Meeting::setVideoProcessor`.
///
///     struct Mirror : KestrovaVideoProcessor {
///       std::optional<VideoFrame> onFrameReceived(const VideoFrame& frame) override {
///         auto pixels = mirrored(frame.buffer->i420());
///         return VideoFrame{pixels, frame.timestampUs, frame.rotation};
///       }
///     };
class KestrovaVideoProcessor {
public:
  virtual ~KestrovaVideoProcessor() = default;
  /// Called for every picture, one after the other, on the thread that captures: what this takes
  /// longer than the time between two pictures (33 ms) lowers the frame rate. The picture's pixels
  /// are shared and must stay as they are; the result's must stay as they are while somebody holds
  /// its buffer.
  ///
  /// \returns what is sent in its place, with the same rotation and time unless they are meant to
  ///   change. Nothing, a picture without pixels, or an exception: the camera's own is sent
  virtual std::optional<VideoFrame> onFrameReceived(const VideoFrame& frame) = 0;
};

}  // namespace kestrova
