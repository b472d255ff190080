#include "PictureWatch.h"

namespace kestrova::meet {

void PictureWatch::onFrame(const VideoFrame& frame) {
  if (!frame.buffer) return;
  const auto view = frame.buffer->i420();
  const bool upright = frame.rotation % 180 == 0;
  bool first = false;
  {
    const std::scoped_lock held(_lock);
    first = _seen.frames++ == 0;
    _seen.width = upright ? view.width : view.height;
    _seen.height = upright ? view.height : view.width;
    _seen.last = frame;
    if (first) _seen.first = Clock::now();
  }
  if (first && _onFirst) _onFirst();
}

void PictureWatch::measure(Clock::time_point now) {
  const std::scoped_lock held(_lock);
  if (_measuredAt && now > *_measuredAt) {
    const auto frames = static_cast<double>(_seen.frames - _measuredFrames);
    _seen.fps = frames / std::chrono::duration<double>(now - *_measuredAt).count();
  }
  _measuredAt = now;
  _measuredFrames = _seen.frames;
}

PictureWatch::Seen PictureWatch::seen() const {
  const std::scoped_lock held(_lock);
  return _seen;
}

}  // namespace kestrova::meet
