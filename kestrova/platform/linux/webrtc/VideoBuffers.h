#pragma once

#include <kestrova/platform/VideoFrame.h>

#include <api/scoped_refptr.h>
#include <api/video/video_frame.h>
#include <api/video/video_frame_buffer.h>
#include <common_video/include/video_frame_buffer_pool.h>

#include <memory>

namespace kestrova {

/// Makes pictures of ours such as the engine sees them. One thread at a time; what it made may
/// outlive it.
class EngineBuffers {
public:
  EngineBuffers();
  /// The same pixels, without a copy: `buffer` lives as long as the engine needs it. BGRA alone is
  /// converted, and no longer needed afterwards. Nothing when too many converted pictures are still
  /// in use.
  rtc::scoped_refptr<webrtc::VideoFrameBuffer> make(
      const std::shared_ptr<const VideoFrameBuffer>& buffer);

private:
  rtc::scoped_refptr<webrtc::VideoFrameBuffer> convert(const BGRAView& view);
  webrtc::VideoFrameBufferPool _converted;
};

/// A picture of the engine as ours, without a copy where it is I420 or NV12 already. Its buffer is
/// empty when the engine cannot convert it.
VideoFrame frameOf(const webrtc::VideoFrame& frame);

}  // namespace kestrova
