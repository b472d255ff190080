#pragma once

#include <kestrova/media/KestrovaVideoProcessor.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kestrova {

struct MaskView;

/// Puts another background behind the people in front of the camera: a picture, or the room itself
/// out of focus.
///
///     meeting->setVideoProcessor(
///         std::make_shared<KestrovaBackgroundProcessor>("https://example.com/beach.jpg"));
///
/// Pictures of the camera pass unchanged until the first background is there, and where the library
/// can't tell people from what is behind them: its log says so once. Any thread may call, but for
/// `onFrameReceived`. One processor serves one camera.
class KestrovaBackgroundProcessor final : public KestrovaVideoProcessor {
public:
  /// The room itself, out of focus.
  struct Blur {};
  /// Told on the main queue, once: whether the background is there, and people can be told from
  /// what is behind them. Until then, and without it, the room is seen.
  using Completion = std::function<void(bool isThere)>;

  /// Starts the download at once and is usable at once.
  /// \param backgroundSource URL of a PNG or JPEG: http, https, or file. The picture is stretched
  ///   to the camera's size, each side by itself
  explicit KestrovaBackgroundProcessor(const std::string& backgroundSource,
                                       Completion completion = {});
  explicit KestrovaBackgroundProcessor(Blur blur, Completion completion = {});
  ~KestrovaBackgroundProcessor() override;
  KestrovaBackgroundProcessor(const KestrovaBackgroundProcessor&) = delete;
  KestrovaBackgroundProcessor& operator=(const KestrovaBackgroundProcessor&) = delete;

  /// The background before stays until the new one is there, and when that can't be had. Of several
  /// changes the last one counts, whichever download ends first.
  void changeBackground(const std::string& backgroundSource, Completion completion = {});
  void changeBackground(Blur blur, Completion completion = {});

  std::optional<VideoFrame> onFrameReceived(const VideoFrame& frame) override;

private:
  std::shared_ptr<const VideoFrameBuffer> compositeImage(
      const VideoFrameBuffer& originalPixelBuffer, const MaskView& maskPixelBuffer);

  struct State;
  const std::shared_ptr<State> _state;
};

}  // namespace kestrova
