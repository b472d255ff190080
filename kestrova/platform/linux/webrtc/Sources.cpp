#include <kestrova/platform/linux/webrtc/Sources.h>

#include <api/make_ref_counted.h>
#include <rtc_base/time_utils.h>

#include <algorithm>
#include <limits>

namespace kestrova {
namespace {

/// Beyond any encoder; a larger picture is a mistake of the caller.
constexpr int kLargestSide = 16384;
/// A clock reading beyond this (about 140 years) is none, and would overflow sums of such readings.
constexpr std::int64_t kLargestTimestampUs = std::int64_t{1} << 52;

struct Size {
  int width = 0;
  int height = 0;
};

template <class View>
Size sizeOf(const View& view) {
  const bool isSane = isComplete(view) && view.width <= kLargestSide && view.height <= kLargestSide;
  return isSane ? Size{view.width, view.height} : Size{};
}

/// Nothing by nothing for pixels that the engine can't take.
Size sizeOf(const VideoFrameBuffer& buffer) {
  switch (buffer.format()) {
    case PixelFormat::nv12:
      return sizeOf(buffer.nv12());
    case PixelFormat::bgra:
      return sizeOf(buffer.bgra());
    case PixelFormat::i420:
      break;
  }
  return sizeOf(buffer.i420());
}

webrtc::VideoRotation rotationOf(int degrees) {
  switch (degrees) {
    case 90:
      return webrtc::kVideoRotation_90;
    case 180:
      return webrtc::kVideoRotation_180;
    case 270:
      return webrtc::kVideoRotation_270;
    default:
      return webrtc::kVideoRotation_0;
  }
}

}  // namespace

// ---- video -------------------------------------------------------------------------------------

void VideoTap::limit(int width, int height, int fps) {
  absl::optional<int> pixels;
  if (width > 0 && height > 0) {
    const auto wanted = static_cast<std::int64_t>(width) * height;
    pixels = static_cast<int>(std::min<std::int64_t>(wanted, std::numeric_limits<int>::max()));
  }
  const absl::optional<std::pair<int, int>> anyAspect;
  video_adapter()->OnOutputFormatRequest(anyAspect, pixels,
                                         fps > 0 ? absl::optional<int>(fps) : absl::nullopt);
}

void VideoTap::deliver(const VideoFrame& frame) {
  // Once the engine knows, it makes these pictures black.
  if (!_feed->enabled && _feed->enabledInEngine) return;
  const auto size = sizeOf(*frame.buffer);
  if (size.width == 0) return;
  const auto now = rtc::TimeMicros();
  const bool clockIsSane =
      frame.timestampUs >= -kLargestTimestampUs && frame.timestampUs <= kLargestTimestampUs;
  const auto time = _aligner.TranslateTimestamp(clockIsSane ? frame.timestampUs : now, now);

  int outWidth, outHeight, cropWidth, cropHeight, cropX, cropY;
  if (!AdaptFrame(size.width, size.height, time, &outWidth, &outHeight, &cropWidth, &cropHeight,
                  &cropX, &cropY))
    return;
  auto pixels = _buffers.make(frame.buffer);
  if (!pixels) return;
  if (outWidth != size.width || outHeight != size.height)
    pixels = pixels->CropAndScale(cropX, cropY, cropWidth, cropHeight, outWidth, outHeight);
  OnFrame(webrtc::VideoFrame::Builder()
              .set_video_frame_buffer(pixels)
              .set_timestamp_us(time)
              .set_rotation(rotationOf(frame.rotation))
              .build());
  if (const auto kept = std::exchange(_keeper.kept, absl::nullopt)) _feed->OnFrame(*kept);
}

void VideoTap::serve(bool wanted) {
  rtc::VideoSourceInterface<webrtc::VideoFrame>& source = *this;
  if (wanted)
    source.AddOrUpdateSink(&_keeper, rtc::VideoSinkWants());
  else
    source.RemoveSink(&_keeper);
}

void VideoTap::leave() {
  if (const auto siblings = _siblings.lock()) siblings->remove(*this);
}

void VideoSource::adaptOutputFormat(int width, int height, int fps) {
  std::scoped_lock held(_lock);
  _limit = {width, height, fps};
  const auto taps = _taps->all();
  for (const auto& tap : *taps) tap->limit(width, height, fps);
}

void VideoSource::onFrame(const VideoFrame& frame) {
  if (!frame.buffer) return;
  const auto taps = _taps->all();
  for (const auto& tap : *taps) tap->deliver(frame);
}

rtc::scoped_refptr<VideoTap> VideoSource::tap(std::shared_ptr<VideoFeed> feed) {
  auto tap = rtc::make_ref_counted<VideoTap>(_taps, std::move(feed), _isScreencast);
  std::scoped_lock held(_lock);  // a new limit reaches this track either here or by the list
  tap->limit(_limit.width, _limit.height, _limit.fps);
  _taps->add(tap);
  return tap;
}

// ---- audio -------------------------------------------------------------------------------------

void AudioTap::AddSink(webrtc::AudioTrackSinkInterface* sink) {
  std::scoped_lock held(_lock);
  _engineSinks.push_back(sink);
}

/// Once this returns the engine's sink may go, so delivery holds the lock.
void AudioTap::RemoveSink(webrtc::AudioTrackSinkInterface* sink) {
  std::scoped_lock held(_lock);
  std::erase(_engineSinks, sink);
}

void AudioTap::deliver(const AudioData& data) {
  const auto now = rtc::TimeMillis();
  const auto heard = _feed->audible(data);
  {
    std::scoped_lock held(_lock);
    for (auto* sink : _engineSinks)
      sink->OnData(heard.samples, 16, heard.sampleRate, static_cast<std::size_t>(heard.channels),
                   static_cast<std::size_t>(heard.frames), now);
  }
  _feed->deliver(heard);
}

void AudioTap::leave() {
  if (const auto siblings = _siblings.lock()) siblings->remove(*this);
}

void AudioSource::onData(const AudioData& data) {
  const bool isSane = data.samples && data.sampleRate >= 8000 && data.sampleRate <= 48000 &&
                      (data.channels == 1 || data.channels == 2) &&
                      data.frames * 100 == data.sampleRate;
  if (!isSane) return;
  const auto taps = _taps->all();
  for (const auto& tap : *taps) tap->deliver(data);
}

rtc::scoped_refptr<AudioTap> AudioSource::tap(std::shared_ptr<AudioFeed> feed) {
  auto tap = rtc::make_ref_counted<AudioTap>(_taps, std::move(feed));
  _taps->add(tap);
  return tap;
}

}  // namespace kestrova
