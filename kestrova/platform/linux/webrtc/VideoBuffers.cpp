#include <kestrova/platform/linux/webrtc/VideoBuffers.h>

#include <common_video/include/video_frame_buffer.h>

namespace kestrova {
namespace {

class EngineBuffer final : public VideoFrameBuffer {
public:
  explicit EngineBuffer(rtc::scoped_refptr<webrtc::I420BufferInterface> buffer)
      : _buffer(std::move(buffer)) {}
  I420View i420() const override {
    return {_buffer->DataY(),   _buffer->DataU(),   _buffer->DataV(), _buffer->StrideY(),
            _buffer->StrideU(), _buffer->StrideV(), _buffer->width(), _buffer->height()};
  }

private:
  rtc::scoped_refptr<webrtc::I420BufferInterface> _buffer;
};

}  // namespace

rtc::scoped_refptr<webrtc::I420BufferInterface> engineBuffer(
    const std::shared_ptr<const VideoFrameBuffer>& buffer) {
  const auto view = buffer->i420();
  return webrtc::WrapI420Buffer(view.width, view.height, view.y, view.strideY, view.u, view.strideU,
                                view.v, view.strideV, [buffer] {});
}

VideoFrame frameOf(const webrtc::VideoFrame& frame) {
  VideoFrame result;
  result.timestampUs = frame.timestamp_us();
  result.rotation = static_cast<int>(frame.rotation());
  if (auto i420 = frame.video_frame_buffer()->ToI420())
    result.buffer = std::make_shared<EngineBuffer>(std::move(i420));
  return result;
}

}  // namespace kestrova
