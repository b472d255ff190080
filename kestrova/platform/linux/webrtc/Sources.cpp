#include <kestrova/platform/linux/webrtc/Engine.h>
#include <kestrova/platform/linux/webrtc/Sources.h>
#include <kestrova/platform/linux/webrtc/VideoBuffers.h>

#include <api/make_ref_counted.h>
#include <api/notifier.h>
#include <media/base/adapted_video_track_source.h>
#include <rtc_base/time_utils.h>
#include <rtc_base/timestamp_aligner.h>

#include <algorithm>
#include <limits>
#include <mutex>
#include <vector>

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

class VideoSource::Adapter : public rtc::AdaptedVideoTrackSource {
public:
  SourceState state() const override { return kLive; }
  bool remote() const override { return false; }
  bool is_screencast() const override { return false; }
  absl::optional<bool> needs_denoising() const override { return false; }

  void limit(int width, int height, int fps) {
    absl::optional<int> pixels;
    if (width > 0 && height > 0) {
      const auto wanted = static_cast<std::int64_t>(width) * height;
      pixels = static_cast<int>(std::min<std::int64_t>(wanted, std::numeric_limits<int>::max()));
    }
    const absl::optional<std::pair<int, int>> anyAspect;
    video_adapter()->OnOutputFormatRequest(anyAspect, pixels,
                                           fps > 0 ? absl::optional<int>(fps) : absl::nullopt);
  }

  void deliver(const VideoFrame& frame) {
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
  }

private:
  // The delivering thread.
  rtc::TimestampAligner _aligner;
  EngineBuffers _buffers;
};

VideoSource::VideoSource(std::shared_ptr<Engine> engine)
    : _engine(std::move(engine)), _adapter(rtc::make_ref_counted<Adapter>()) {}
VideoSource::~VideoSource() = default;

webrtc::VideoTrackSourceInterface& VideoSource::engineSource() {
  return *_adapter;
}

void VideoSource::adaptOutputFormat(int width, int height, int fps) {
  _adapter->limit(width, height, fps);
}

void VideoSource::onFrame(const VideoFrame& frame) {
  if (frame.buffer) _adapter->deliver(frame);
}

class AudioSource::Feed : public webrtc::Notifier<webrtc::AudioSourceInterface> {
public:
  SourceState state() const override { return kLive; }
  bool remote() const override { return false; }
  const cricket::AudioOptions options() const override { return {}; }

  void AddSink(webrtc::AudioTrackSinkInterface* sink) override {
    std::scoped_lock held(_lock);
    _sinks.push_back(sink);
  }
  /// Once this returns the sink may go, so delivery holds the lock.
  void RemoveSink(webrtc::AudioTrackSinkInterface* sink) override {
    std::scoped_lock held(_lock);
    std::erase(_sinks, sink);
  }

  void deliver(const AudioData& data) {
    const auto now = rtc::TimeMillis();
    std::scoped_lock held(_lock);
    for (auto* sink : _sinks)
      sink->OnData(data.samples, 16, data.sampleRate, static_cast<std::size_t>(data.channels),
                   static_cast<std::size_t>(data.frames), now);
  }

private:
  std::mutex _lock;
  std::vector<webrtc::AudioTrackSinkInterface*> _sinks;
};

// The constraints speak of processing, which is the recorder's business: samples are taken as
// given.
AudioSource::AudioSource(std::shared_ptr<Engine> engine,
                         const std::map<std::string, std::string>& constraints)
    : _engine(std::move(engine)), _constraints(constraints), _feed(rtc::make_ref_counted<Feed>()) {}
AudioSource::~AudioSource() = default;

webrtc::AudioSourceInterface& AudioSource::engineSource() {
  return *_feed;
}

void AudioSource::onData(const AudioData& data) {
  const bool isSane = data.samples && data.sampleRate >= 8000 && data.sampleRate <= 48000 &&
                      (data.channels == 1 || data.channels == 2) &&
                      data.frames * 100 == data.sampleRate;
  if (isSane) _feed->deliver(data);
}

}  // namespace kestrova
