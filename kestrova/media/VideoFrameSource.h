#pragma once

#include <kestrova/media/CustomRTCMediaStream.h>
#include <kestrova/media/PushResult.h>
#include <kestrova/platform/VideoFrame.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace kestrova {

/// When a picture was taken, and how it is to be turned.
struct FrameInfo {
  /// Microseconds on the monotonic clock, each later than the one before; now without it.
  std::optional<std::int64_t> timestampUs;
  int rotation = 0;  ///< clockwise degrees: 0, 90, 180 or 270
};

/// An application's own pictures as a camera of a meeting.
///
///     auto source = VideoFrameSource::make();
///     auto meeting = Kestrova::initMeeting({..., .webcamEnabled = true,
///                                           .customCameraVideoStream = source->makeStream()});
///     source->push(I420View{...}, {.timestampUs = takenAt}, [picture] { picture->giveBack(); });
///
/// Pushing is done by any one thread at a time, at the pace at which the pictures shall be seen; it
/// never waits, and does nothing but check while the stream isn't published. The other operations
/// are for any thread. The source may go before its streams; they show nothing new then.
class VideoFrameSource {
public:
  using ReleaseCallback = std::function<void()>;
  static constexpr int largestSide = 8192;

  static std::shared_ptr<VideoFrameSource> make();
  ~VideoFrameSource();
  VideoFrameSource(const VideoFrameSource&) = delete;
  VideoFrameSource& operator=(const VideoFrameSource&) = delete;

  /// With `release` the planes are not copied: they must stay as they are until it is called, which
  /// happens once in any case, on any thread, also for a picture that is refused. Without it they
  /// are copied before the call returns.
  PushResult push(const I420View& picture, const FrameInfo& info = {},
                  ReleaseCallback release = {});
  /// The same; NV12 reaches the encoder as it is.
  PushResult push(const NV12View& picture, const FrameInfo& info = {},
                  ReleaseCallback release = {});
  /// Converted before the call returns.
  PushResult push(const BGRAView& picture, const FrameInfo& info = {});
  PushCounters counters() const;

  /// A new stream that shows the pushed pictures. A stream is for one publication: make another to
  /// turn the camera on again. There may be several at a time.
  /// \param settings how it is published; its track and capture are ignored. `encoderConfig` should
  ///   fit the pictures' size, as it sets the bitrates.
  std::shared_ptr<CustomRTCMediaStream> makeStream(CustomStreamFields settings = {}) const;

private:
  struct State;
  explicit VideoFrameSource(std::unique_ptr<State> state);

  const std::unique_ptr<State> _state;
};

}  // namespace kestrova
