#include <kestrova/media/MediaCapturer.h>
#include <kestrova/media/StillPicture.h>
#include <kestrova/platform/Await.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/realtime/Base64.h>
#include <kestrova/tracing/Trace.h>

#include <charconv>
#include <cmath>
#include <exception>
#include <mutex>
#include <utility>

namespace kestrova {
namespace {

using StillCompletion = std::function<void(const std::optional<std::string>&)>;

constexpr double bestQuality = 1.0;
constexpr double largestSide = 1e6;  // beyond any picture, and well within an int

class CameraStill final : public StillSource {
public:
  explicit CameraStill(const std::shared_ptr<MediaCapturer>& capturer) : _capturer(capturer) {
    capturer->beginImageCapture();
  }
  ~CameraStill() override { take(); }
  VideoFrame take() override {
    const auto capturer = std::exchange(_capturer, {}).lock();
    return capturer ? capturer->takeCapturedImage() : VideoFrame();
  }

private:
  std::weak_ptr<MediaCapturer> _capturer;
};

class TrackStill final : public StillSource {
public:
  explicit TrackStill(std::shared_ptr<RTCVideoTrack> track) : _track(std::move(track)) {
    _track->addSink(_newest);
  }
  ~TrackStill() override { _track->removeSink(_newest); }
  VideoFrame take() override {
    _track->removeSink(_newest);
    std::scoped_lock held(_newest->lock);
    return std::exchange(_newest->frame, {});
  }

private:
  struct Newest final : VideoSink {
    void onFrame(const VideoFrame& passing) override {
      auto kept = passing;  // the one before goes behind the lock
      std::scoped_lock held(lock);
      std::swap(frame, kept);
    }
    std::mutex lock;
    VideoFrame frame;  // under lock
  };
  const std::shared_ptr<RTCVideoTrack> _track;
  const std::shared_ptr<Newest> _newest = std::make_shared<Newest>();
};

/// With one decimal at least.
std::string decimal(double number) {
  char digits[32];
  const auto [end, error] = std::to_chars(std::begin(digits), std::end(digits), number);
  std::string text(digits, error == std::errc() ? end : digits);
  const bool isWhole = text.find_first_not_of("-0123456789") == text.npos;
  return isWhole ? text + ".0" : text;
}

/// Nothing for what is no side of a picture.
std::optional<int> pixels(std::optional<double> asked, int otherwise) {
  if (!asked) return otherwise;
  if (!(*asked >= 1 && *asked <= largestSide)) return std::nullopt;
  return static_cast<int>(std::lround(*asked));
}

struct StillSize {
  std::optional<double> height;
  std::optional<double> width;
};

/// \throws std::exception from the platform
std::optional<std::string> encoded(const Platform& platform, const VideoFrame& frame,
                                   const StillSize& size) {
  auto& imaging = *platform.imaging;
  const auto lying = imaging.render(*frame.buffer);
  // A camera that is held upright may give pictures that lie on their side, by 3/2 pi against the
  // clock, which the rotation of 90 takes back; one on a desk gives them as they are.
  const auto upright = lying ? imaging.rotate(*lying, frame.rotation) : std::nullopt;
  if (!upright) return std::nullopt;
  const auto screen = platform.mainScreenSize ? platform.mainScreenSize() : std::nullopt;
  const auto [ownWidth, ownHeight] = screen.value_or(std::pair(upright->width, upright->height));
  const auto height = pixels(size.height, ownHeight);
  const auto width = pixels(size.width, ownWidth);
  const auto resized = height && width ? imaging.resize(*upright, *width, *height) : std::nullopt;
  const auto jpeg = resized ? imaging.encodeJpeg(*resized, bestQuality) : std::nullopt;
  return jpeg ? std::optional(base64Encoded(*jpeg)) : std::nullopt;
}

std::optional<std::string> still(const Platform& platform, const VideoFrame& frame,
                                 const StillSize& size, ScopedSpan& span) {
  constexpr const char* failed = "Failed to capture image";
  if (frame.buffer && !platform.imaging) {
    span.fail("Failed to capture image: CIAffineTransform filter unavailable");
    return std::nullopt;
  }
  std::optional<std::string> text;
  try {
    if (frame.buffer) text = encoded(platform, frame, size);
  } catch (const std::exception& error) {
    span.fail(failed, {{"error", std::string_view(error.what())}});
    return std::nullopt;
  }
  if (text)
    span.event("Image captured successfully");
  else
    span.fail(failed);
  return text;
}

Task<void> takeStill(std::shared_ptr<StillSource> source, StillSize size,
                     StillCompletion completion) {
  ScopedSpan span("Capturing image", {{"height", decimal(size.height.value_or(0))},
                                      {"width", decimal(size.width.value_or(0))}});
  const auto platform = Platform::current();
  auto wait = [source](Completion<VideoFrame> done) {
    MainQueue::shared().after(stillPictureWait, [source, done] { done(source->take()); });
  };
  const VideoFrame frame = co_await awaitCallback<VideoFrame>(std::move(wait));
  auto text = still(*platform, frame, size, span);
  MainQueue::shared().async([completion = std::move(completion), text = std::move(text)] {
    if (completion) completion(text);
  });
}

}  // namespace

std::unique_ptr<StillSource> stillFromCamera(const std::shared_ptr<MediaCapturer>& capturer) {
  return std::make_unique<CameraStill>(capturer);
}

std::unique_ptr<StillSource> stillFromTrack(std::shared_ptr<RTCVideoTrack> track) {
  return std::make_unique<TrackStill>(std::move(track));
}

void takeStillPicture(std::unique_ptr<StillSource> source, std::optional<double> height,
                      std::optional<double> width, StillCompletion completion) {
  spawn(takeStill(std::move(source), {height, width}, std::move(completion)));
}

}  // namespace kestrova
