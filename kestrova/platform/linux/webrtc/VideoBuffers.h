#pragma once

#include <kestrova/platform/VideoFrame.h>

#include <api/scoped_refptr.h>
#include <api/video/video_frame.h>
#include <api/video/video_frame_buffer.h>

#include <memory>

namespace kestrova {

/// The same pixels as the engine sees them; `buffer` lives as long as the engine needs it.
rtc::scoped_refptr<webrtc::I420BufferInterface> engineBuffer(
    const std::shared_ptr<const VideoFrameBuffer>& buffer);

/// A picture of the engine as ours, without a copy where it is I420 already. Its buffer is empty
/// when the engine cannot convert it.
VideoFrame frameOf(const webrtc::VideoFrame& frame);

}  // namespace kestrova
