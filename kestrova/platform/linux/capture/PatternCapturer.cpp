#include <kestrova/platform/linux/capture/FramePool.h>
#include <kestrova/platform/linux/capture/PatternCapturer.h>
#include <kestrova/platform/linux/capture/TestPicture.h>

#include <algorithm>

namespace kestrova {
namespace {

constexpr CaptureFormat kFormat{1280, 720, 30};
constexpr int kLargestSide = 4096;
constexpr int kHighestRate = 120;

std::int64_t microseconds(std::chrono::steady_clock::time_point time) {
  return std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
}

std::int64_t wallClockMs() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

}  // namespace

const std::vector<AVCaptureDevice>& patternCameras() {
  static const std::vector<AVCaptureDevice> cameras{
      {"pattern-front", "Test Picture", CameraPosition::front, kFormat},
      {"pattern-back", "Test Picture (back)", CameraPosition::back, kFormat}};
  return cameras;
}

/// What the capturing thread needs; it outlives the capturer when that is released from a handler.
struct PatternCapturer::Output {
  TestPicture picture;
  FramePool pool;
  std::shared_ptr<FrameHandler> handler;

  void deliver(std::int64_t number) {
    auto buffer = pool.take();
    VideoFrame frame;
    frame.timestampUs = microseconds(std::chrono::steady_clock::now());
    picture.draw(*buffer, wallClockMs(), number);
    frame.buffer = std::move(buffer);
    (*handler)(frame);
  }
};

PatternCapturer::~PatternCapturer() {
  endThreads();
}

void PatternCapturer::endThreads() {
  // Declared before the lock: waiting for the threads comes after it is let go.
  std::unique_ptr<PeriodicThread> running;
  std::unique_ptr<PeriodicThread> ended;
  std::scoped_lock held(_lock);
  running.swap(_thread);
  ended.swap(_ended);
}

void PatternCapturer::onFrame(FrameHandler handler) {
  std::scoped_lock held(_lock);
  _handler = std::make_shared<FrameHandler>(std::move(handler));
}

bool PatternCapturer::isRunning() const {
  std::scoped_lock held(_lock);
  return _thread != nullptr;
}

void PatternCapturer::startCapture(const AVCaptureDevice& device, const CaptureFormat& format,
                                   int fps,
                                   std::function<void(const std::string& error)> completion) {
  std::string error;
  const auto& cameras = patternCameras();
  const auto known = std::find_if(cameras.begin(), cameras.end(), [&](const auto& camera) {
    return camera.uniqueId == device.uniqueId;
  });
  if (known == cameras.end())
    error = "there is no such camera: " + device.uniqueId;
  else if (format.width < TestPicture::kSmallestWidth || format.width > kLargestSide ||
           format.height < TestPicture::kSmallestHeight || format.height > kLargestSide ||
           fps < 1 || fps > kHighestRate)
    error = "the camera has no such format";
  if (error.empty()) {
    endThreads();
    std::scoped_lock held(_lock);
    if (!_handler || !*_handler) {
      error = "nobody takes the pictures";
    } else {
      auto output = std::make_shared<Output>(
          Output{TestPicture(format.width, format.height, known->localizedName),
                 FramePool(format.width, format.height), _handler});
      _thread = std::make_unique<PeriodicThread>(
          std::chrono::nanoseconds(1'000'000'000 / fps),
          [output](std::int64_t number) { output->deliver(number); });
    }
  }
  if (completion) completion(error);
}

void PatternCapturer::stopCapture(std::function<void()> completion) {
  // Not waited for here: the handler may be waiting for the caller.
  std::unique_lock held(_lock);
  if (!_thread) {
    held.unlock();
    if (completion) completion();
    return;
  }
  _thread->stop(std::move(completion));
  _ended = std::move(_thread);
}

}  // namespace kestrova
