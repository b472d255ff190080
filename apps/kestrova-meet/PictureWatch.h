#pragma once

#include <kestrova/platform/VideoFrame.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>

namespace kestrova::meet {

/// Counts the pictures of one participant and keeps the last one. Thread-safe.
class PictureWatch final : public VideoSink {
public:
  using Clock = std::chrono::steady_clock;
  struct Seen {
    std::uint64_t frames = 0;
    int width = 0;
    int height = 0;
    double fps = 0;  ///< between the last two calls of `measure`
    std::optional<Clock::time_point> first;
    VideoFrame last;
  };

  /// \param onFirst called once, on a thread of the engine
  explicit PictureWatch(std::function<void()> onFirst) : _onFirst(std::move(onFirst)) {}
  void onFrame(const VideoFrame& frame) override;
  void measure(Clock::time_point now);
  Seen seen() const;

private:
  const std::function<void()> _onFirst;
  mutable std::mutex _lock;  // for all below
  Seen _seen;
  std::uint64_t _measuredFrames = 0;
  std::optional<Clock::time_point> _measuredAt;
};

}  // namespace kestrova::meet
