#include <kestrova/platform/linux/webrtc/VideoBuffers.h>

#include <api/make_ref_counted.h>
#include <api/video/i420_buffer.h>
#include <common_video/include/video_frame_buffer.h>
#include <libyuv/convert.h>

#include <mutex>

namespace kestrova {
namespace {

/// More than an encoder and its sinks hold; beyond it something keeps pictures for ever.
constexpr std::size_t kMostConverted = 30;

I420View viewOf(const webrtc::I420BufferInterface& buffer) {
  return {buffer.DataY(),   buffer.DataU(),   buffer.DataV(), buffer.StrideY(),
          buffer.StrideU(), buffer.StrideV(), buffer.width(), buffer.height()};
}

/// Ours for the engine.
class NV12ForEngine : public webrtc::NV12BufferInterface {
public:
  explicit NV12ForEngine(std::shared_ptr<const kestrova::VideoFrameBuffer> buffer)
      : _buffer(std::move(buffer)), _view(_buffer->nv12()) {}
  int width() const override { return _view.width; }
  int height() const override { return _view.height; }
  int StrideY() const override { return _view.strideY; }
  int StrideUV() const override { return _view.strideUV; }
  const uint8_t* DataY() const override { return _view.y; }
  const uint8_t* DataUV() const override { return _view.uv; }
  rtc::scoped_refptr<webrtc::I420BufferInterface> ToI420() override {
    auto copy = webrtc::I420Buffer::Create(width(), height());
    libyuv::NV12ToI420(DataY(), StrideY(), DataUV(), StrideUV(), copy->MutableDataY(),
                       copy->StrideY(), copy->MutableDataU(), copy->StrideU(), copy->MutableDataV(),
                       copy->StrideV(), width(), height());
    return copy;
  }

private:
  const std::shared_ptr<const kestrova::VideoFrameBuffer> _buffer;
  const NV12View _view;
};

/// The engine's for us.
class I420OfEngine final : public VideoFrameBuffer {
public:
  explicit I420OfEngine(rtc::scoped_refptr<webrtc::I420BufferInterface> buffer)
      : _buffer(std::move(buffer)) {}
  I420View i420() const override { return viewOf(*_buffer); }

private:
  const rtc::scoped_refptr<webrtc::I420BufferInterface> _buffer;
};

class NV12OfEngine final : public VideoFrameBuffer {
public:
  explicit NV12OfEngine(rtc::scoped_refptr<webrtc::VideoFrameBuffer> buffer)
      : _buffer(std::move(buffer)) {}
  PixelFormat format() const override { return PixelFormat::nv12; }
  NV12View nv12() const override {
    const auto& buffer = *_buffer->GetNV12();
    return {buffer.DataY(),    buffer.DataUV(), buffer.StrideY(),
            buffer.StrideUV(), buffer.width(),  buffer.height()};
  }
  I420View i420() const override {
    std::call_once(_conversion, [this] { _converted = _buffer->ToI420(); });
    return _converted ? viewOf(*_converted) : I420View();
  }

private:
  const rtc::scoped_refptr<webrtc::VideoFrameBuffer> _buffer;
  mutable std::once_flag _conversion;
  mutable rtc::scoped_refptr<webrtc::I420BufferInterface> _converted;
};

}  // namespace

EngineBuffers::EngineBuffers() : _converted(false, kMostConverted) {}

rtc::scoped_refptr<webrtc::VideoFrameBuffer> EngineBuffers::make(
    const std::shared_ptr<const VideoFrameBuffer>& buffer) {
  switch (buffer->format()) {
    case PixelFormat::nv12:
      return rtc::make_ref_counted<NV12ForEngine>(buffer);
    case PixelFormat::bgra:
      return convert(buffer->bgra());
    case PixelFormat::i420:
      break;
  }
  const auto view = buffer->i420();
  return webrtc::WrapI420Buffer(view.width, view.height, view.y, view.strideY, view.u, view.strideU,
                                view.v, view.strideV, [buffer] {});
}

rtc::scoped_refptr<webrtc::VideoFrameBuffer> EngineBuffers::convert(const BGRAView& view) {
  const auto planes = _converted.CreateI420Buffer(view.width, view.height);
  if (!planes) return nullptr;
  // What libyuv calls ARGB is a little-endian word: blue comes first in memory.
  libyuv::ARGBToI420(view.pixels, view.stride, planes->MutableDataY(), planes->StrideY(),
                     planes->MutableDataU(), planes->StrideU(), planes->MutableDataV(),
                     planes->StrideV(), view.width, view.height);
  return planes;
}

VideoFrame frameOf(const webrtc::VideoFrame& frame) {
  VideoFrame result;
  result.timestampUs = frame.timestamp_us();
  result.rotation = static_cast<int>(frame.rotation());
  const auto pixels = frame.video_frame_buffer();
  if (pixels->type() == webrtc::VideoFrameBuffer::Type::kNV12)
    result.buffer = std::make_shared<NV12OfEngine>(pixels);
  else if (auto i420 = pixels->ToI420())
    result.buffer = std::make_shared<I420OfEngine>(std::move(i420));
  return result;
}

}  // namespace kestrova
