#include <kestrova/media/PixelMemory.h>
#include <kestrova/media/VideoFrameSource.h>
#include <kestrova/platform/Platform.h>
#include <kestrova/platform/Scheduler.h>
#include <kestrova/platform/WrappedBuffers.h>
#include <kestrova/tracing/Uuid.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <utility>

namespace kestrova {
namespace {

/// About 140 years: a reading beyond it is none, and sums of such readings would overflow.
constexpr std::int64_t largestTimestampUs = std::int64_t{1} << 52;

bool hasPixels(const I420View& view) {
  return view.y && view.u && view.v;
}
bool hasPixels(const NV12View& view) {
  return view.y && view.uv;
}
bool hasPixels(const BGRAView& view) {
  return view.pixels;
}

bool isSide(int side) {
  return side > 0 && side <= VideoFrameSource::largestSide;
}

/// Copies rows without what lies between them. \returns the end of the copy
std::uint8_t* copyRows(const std::uint8_t* from, int stride, int rowBytes, int rows,
                       std::uint8_t* to) {
  for (int row = 0; row < rows; ++row, from += stride, to += rowBytes)
    std::memcpy(to, from, static_cast<std::size_t>(rowBytes));
  return to;
}

}  // namespace

struct VideoFrameSource::State {
  template <class View>
  PushResult check(const View& picture, const FrameInfo& info, std::int64_t& timestampUs);
  std::int64_t present() const;
  PushResult refuse(PushResult why);
  PushResult feed(std::shared_ptr<const VideoFrameBuffer> buffer, std::int64_t timestampUs,
                  int rotation);
  std::shared_ptr<const VideoFrameBuffer> copy(const I420View& picture);
  std::shared_ptr<const VideoFrameBuffer> copy(const NV12View& picture);

  const std::shared_ptr<RTCPeerConnectionFactory> factory;
  const std::shared_ptr<Scheduler> scheduler;
  const std::shared_ptr<RTCVideoSource> source;
  PixelMemory pool{};
  std::optional<std::int64_t> lastTimestampUs{};  // the pushing thread
  std::atomic<std::uint64_t> accepted{0};
  std::atomic<std::uint64_t> refused{0};
};

std::shared_ptr<VideoFrameSource> VideoFrameSource::make() {
  const auto platform = Platform::current();
  const auto factory = platform->peerConnectionFactory();
  std::unique_ptr<State> state(new State{
      .factory = factory, .scheduler = platform->scheduler, .source = factory->videoSource()});
  return std::shared_ptr<VideoFrameSource>(new VideoFrameSource(std::move(state)));
}

VideoFrameSource::VideoFrameSource(std::unique_ptr<State> state) : _state(std::move(state)) {}
VideoFrameSource::~VideoFrameSource() = default;

std::shared_ptr<CustomRTCMediaStream> VideoFrameSource::makeStream(
    CustomStreamFields settings) const {
  settings.videoTrack = _state->factory->videoTrack(_state->source, Uuid::random().text());
  settings.audioTrack = nullptr;
  settings.capture = nullptr;
  settings.capturer = nullptr;
  return std::make_shared<CustomRTCMediaStream>(std::move(settings));
}

PushCounters VideoFrameSource::counters() const {
  return {_state->accepted, _state->refused};
}

// ---- Pushing
// -----------------------------------------------------------------------------------

PushResult VideoFrameSource::push(const I420View& picture, const FrameInfo& info,
                                  ReleaseCallback release) {
  const bool borrowed = release != nullptr;
  // From here on the callback is run whatever happens.
  auto buffer = std::make_shared<const WrappedI420Buffer>(picture, std::move(release));
  std::int64_t time = 0;
  const auto result = _state->check(picture, info, time);
  if (result != PushResult::accepted) return _state->refuse(result);
  if (borrowed) return _state->feed(std::move(buffer), time, info.rotation);
  return _state->feed(_state->copy(picture), time, info.rotation);
}

PushResult VideoFrameSource::push(const NV12View& picture, const FrameInfo& info,
                                  ReleaseCallback release) {
  const bool borrowed = release != nullptr;
  auto buffer = std::make_shared<const WrappedNV12Buffer>(picture, std::move(release));
  std::int64_t time = 0;
  const auto result = _state->check(picture, info, time);
  if (result != PushResult::accepted) return _state->refuse(result);
  if (borrowed) return _state->feed(std::move(buffer), time, info.rotation);
  return _state->feed(_state->copy(picture), time, info.rotation);
}

PushResult VideoFrameSource::push(const BGRAView& picture, const FrameInfo& info) {
  std::int64_t time = 0;
  const auto result = _state->check(picture, info, time);
  if (result != PushResult::accepted) return _state->refuse(result);
  return _state->feed(std::make_shared<const WrappedBGRABuffer>(picture), time, info.rotation);
}

template <class View>
PushResult VideoFrameSource::State::check(const View& picture, const FrameInfo& info,
                                          std::int64_t& timestampUs) {
  if (!hasPixels(picture)) return PushResult::noData;
  if (!isSide(picture.width) || !isSide(picture.height)) return PushResult::badSize;
  if (!isComplete(picture)) return PushResult::badStride;
  if (info.rotation % 90 != 0 || info.rotation < 0 || info.rotation > 270)
    return PushResult::badRotation;

  timestampUs = info.timestampUs ? *info.timestampUs : present();
  if (timestampUs < 0 || timestampUs > largestTimestampUs) return PushResult::badTime;
  if (lastTimestampUs && timestampUs <= *lastTimestampUs) return PushResult::timeWentBack;
  return PushResult::accepted;
}

/// Now, but later than the last picture however quickly this one follows.
std::int64_t VideoFrameSource::State::present() const {
  const auto now =
      std::chrono::duration_cast<std::chrono::microseconds>(scheduler->now().time_since_epoch());
  return std::max<std::int64_t>(now.count(), lastTimestampUs ? *lastTimestampUs + 1 : 0);
}

PushResult VideoFrameSource::State::refuse(PushResult why) {
  ++refused;
  return why;
}

PushResult VideoFrameSource::State::feed(std::shared_ptr<const VideoFrameBuffer> buffer,
                                         std::int64_t timestampUs, int rotation) {
  lastTimestampUs = timestampUs;
  ++accepted;
  source->onFrame({.buffer = std::move(buffer), .timestampUs = timestampUs, .rotation = rotation});
  return PushResult::accepted;
}

std::shared_ptr<const VideoFrameBuffer> VideoFrameSource::State::copy(const I420View& picture) {
  const int columns = (picture.width + 1) / 2;
  const int rows = (picture.height + 1) / 2;
  const auto luma =
      static_cast<std::size_t>(picture.width) * static_cast<std::size_t>(picture.height);
  const auto chroma = static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows);
  auto memory = pool.take(luma + 2 * chroma);
  auto* y = memory.get();
  auto* u = copyRows(picture.y, picture.strideY, picture.width, picture.height, y);
  auto* v = copyRows(picture.u, picture.strideU, columns, rows, u);
  copyRows(picture.v, picture.strideV, columns, rows, v);
  const I420View view{y, u, v, picture.width, columns, columns, picture.width, picture.height};
  return std::make_shared<const WrappedI420Buffer>(view, [memory] {});
}

std::shared_ptr<const VideoFrameBuffer> VideoFrameSource::State::copy(const NV12View& picture) {
  const int rowBytes = 2 * ((picture.width + 1) / 2);
  const int rows = (picture.height + 1) / 2;
  const auto luma =
      static_cast<std::size_t>(picture.width) * static_cast<std::size_t>(picture.height);
  auto memory =
      pool.take(luma + static_cast<std::size_t>(rowBytes) * static_cast<std::size_t>(rows));
  auto* y = memory.get();
  auto* uv = copyRows(picture.y, picture.strideY, picture.width, picture.height, y);
  copyRows(picture.uv, picture.strideUV, rowBytes, rows, uv);
  const NV12View view{y, uv, picture.width, rowBytes, picture.width, picture.height};
  return std::make_shared<const WrappedNV12Buffer>(view, [memory] {});
}

}  // namespace kestrova
