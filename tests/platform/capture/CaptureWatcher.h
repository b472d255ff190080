#pragma once

#include <kestrova/platform/Capture.h>

#include <unistd.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kestrova::test {

constexpr auto kPatience = std::chrono::seconds(60);

/// What came of one capture, from any thread.
class CaptureWatcher {
public:
  void attach(RTCCameraVideoCapturer& capturer) {
    capturer.onFrame([this](const VideoFrame& frame) {
      std::scoped_lock held(_lock);
      frames.push_back(frame);
      if (frames.size() > 200) frames.erase(frames.begin());
      ++frameCount;
      _wake.notify_all();
    });
    capturer.onFailure([this](const std::string& error) {
      std::scoped_lock held(_lock);
      failures.push_back(error);
      _wake.notify_all();
    });
  }
  std::function<void(const std::string&)> started() {
    return [this](const std::string& error) {
      std::scoped_lock held(_lock);
      starts.push_back(error);
      _wake.notify_all();
    };
  }
  std::function<void()> stopped() {
    return [this] {
      std::scoped_lock held(_lock);
      ++stops;
      _wake.notify_all();
    };
  }
  template <typename Condition>
  bool waitUntil(Condition condition, std::chrono::milliseconds patience = kPatience) {
    std::unique_lock held(_lock);
    return _wake.wait_for(held, patience, condition);
  }
  bool waitForFrames(int count) {
    return waitUntil([&] { return frameCount >= count; });
  }
  /// Starts and gives the text of the completion.
  std::string start(RTCCameraVideoCapturer& capturer, const AVCaptureDevice& device) {
    const auto outcome = std::make_shared<std::promise<std::string>>();
    capturer.startCapture(device, device.activeFormat, device.activeFormat.fps,
                          [outcome](const std::string& error) { outcome->set_value(error); });
    auto text = outcome->get_future();
    return text.wait_for(kPatience) == std::future_status::ready ? text.get() : "never started";
  }
  bool stop(RTCCameraVideoCapturer& capturer) {
    const auto done = std::make_shared<std::promise<void>>();
    capturer.stopCapture([done] { done->set_value(); });
    return done->get_future().wait_for(kPatience) == std::future_status::ready;
  }

  // Read them within waitUntil, or when nothing comes any more.
  std::vector<VideoFrame> frames;
  int frameCount = 0;
  std::vector<std::string> failures;
  std::vector<std::string> starts;
  int stops = 0;

private:
  std::mutex _lock;
  std::condition_variable _wake;
};

/// Keeps what a microphone hears.
struct Ear : RTCAudioSource {
  std::map<std::string, std::string> constraints() const override { return {}; }
  void onData(const AudioData& data) override {
    std::scoped_lock held(lock);
    rate = data.sampleRate;
    channels = data.channels;
    if (data.frames * 100 != data.sampleRate) ++wrong;
    samples.insert(samples.end(), data.samples, data.samples + data.frames * data.channels);
    wake.notify_all();
  }
  bool waitFor(std::size_t count) {
    std::unique_lock held(lock);
    return wake.wait_for(held, kPatience, [&] { return samples.size() >= count; });
  }
  std::mutex lock;
  std::condition_variable wake;
  std::vector<std::int16_t> samples;
  int rate = 0;
  int channels = 0;
  int wrong = 0;
};

/// A folder for the files of one test.
class TemporaryFolder {
public:
  TemporaryFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "captureXXXXXX").string();
    _path = ::mkdtemp(name.data()) ? name : "";
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
  }
  std::string write(const std::string& name, const std::string& bytes) const {
    const auto path = _path / name;
    std::ofstream(path, std::ios::binary) << bytes;
    return path.string();
  }
  std::string path(const std::string& name) const { return (_path / name).string(); }

private:
  std::filesystem::path _path;
};

/// The mean of the middle of one quarter of a picture, numbered like lines of text.
inline std::array<int, 3> quarterColour(const VideoFrameBuffer& picture, int quarter) {
  const auto view = picture.i420();
  const auto mean = [&](const std::uint8_t* plane, int stride, int width, int height) {
    const int left = quarter % 2 * width / 2 + width / 8;
    const int top = quarter / 2 * height / 2 + height / 8;
    int sum = 0, count = 0;
    for (int y = top; y < top + height / 4; ++y)
      for (int x = left; x < left + width / 4; ++x, ++count) sum += plane[y * stride + x];
    return count > 0 ? sum / count : -1;
  };
  const int chromaWidth = (view.width + 1) / 2, chromaHeight = (view.height + 1) / 2;
  return {mean(view.y, view.strideY, view.width, view.height),
          mean(view.u, view.strideU, chromaWidth, chromaHeight),
          mean(view.v, view.strideV, chromaWidth, chromaHeight)};
}

}  // namespace kestrova::test
