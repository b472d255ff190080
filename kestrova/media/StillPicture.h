#pragma once

#include <kestrova/platform/VideoFrame.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kestrova {

class MediaCapturer;
class RTCVideoTrack;

/// Looks at pictures that pass, from its making on, and keeps the newest.
class StillSource {
public:
  virtual ~StillSource() = default;
  /// Once: the newest, and the end of looking. Without a buffer when none has passed.
  virtual VideoFrame take() = 0;
};

/// The pictures of the local camera, such as others see them. Holds the capturer weakly.
std::unique_ptr<StillSource> stillFromCamera(const std::shared_ptr<MediaCapturer>& capturer);
/// The pictures of any track.
std::unique_ptr<StillSource> stillFromTrack(std::shared_ptr<RTCVideoTrack> track);

/// How long it is waited for a picture to pass, which is longer than any usual rate takes.
inline constexpr std::chrono::milliseconds stillPictureWait{500};

/// Half a second later: the picture that `source` has kept by then, upright, as a JPEG of the best
/// quality in base64 without line breaks, or nothing where that fails. `completion` is called once,
/// on the main queue. Any thread.
/// \param height \param width in pixels; where they are not given, the main screen's, and where
///   there is no screen, the picture's own
void takeStillPicture(std::unique_ptr<StillSource> source, std::optional<double> height,
                      std::optional<double> width,
                      std::function<void(const std::optional<std::string>&)> completion);

}  // namespace kestrova
