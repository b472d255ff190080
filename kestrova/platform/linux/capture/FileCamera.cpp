#include <kestrova/platform/linux/capture/FileCamera.h>
#include <kestrova/platform/linux/capture/MjpegReader.h>
#include <kestrova/platform/linux/capture/Pacer.h>
#include <kestrova/platform/linux/capture/Y4mReader.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string_view>
#include <utility>

namespace kestrova {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view kFront = "file:front:";
constexpr std::string_view kBack = "file:back:";
/// Of a file that can't be read; the start of a capture tells why.
constexpr CaptureFormat kUnknownFormat{1280, 720, 30};
constexpr int kUsualRate = 30;

std::unique_ptr<PictureReader> makeReader(const std::string& path) {
  if (hasExtension(path, ".y4m")) return std::make_unique<Y4mReader>();
  return std::make_unique<MjpegReader>();
}

std::int64_t microseconds(Clock::time_point time) {
  return std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
}

class FileSource final : public PictureSource {
public:
  FileSource(std::string path, int fps)
      : _path(std::move(path)), _fps(fps), _reader(makeReader(_path)) {}

  std::string open() override {
    if (auto error = _reader->open(_path); !error.empty()) return error;
    _first = _reader->next();
    return _first ? "" : _path + " has no whole picture";
  }

  std::string run(const StopSignal& stop, const Deliver& deliver) override {
    auto period = _reader->period();
    if (period.count() == 0) period = std::chrono::nanoseconds(1'000'000'000 / _fps);
    for (Pacer pacer(period); !stop.waitUntil(pacer.due()); pacer.advance()) {
      VideoFrame frame;
      frame.buffer = next();
      if (!frame.buffer) return _path + " can't be read any more";
      frame.timestampUs = microseconds(Clock::now());
      deliver(frame);
    }
    return {};
  }

private:
  std::shared_ptr<const VideoFrameBuffer> next() {
    if (_first) return std::exchange(_first, nullptr);
    if (auto picture = _reader->next()) return picture;
    _reader->rewind();
    return _reader->next();
  }

  const std::string _path;
  const int _fps;
  std::unique_ptr<PictureReader> _reader;
  std::shared_ptr<const VideoFrameBuffer> _first;  // read when the file was opened
};

}  // namespace

bool isPictureFile(const std::string& path) {
  return hasExtension(path, ".y4m") || hasExtension(path, ".mjpeg") || hasExtension(path, ".mjpg");
}

std::vector<AVCaptureDevice> fileCameras(const std::string& path) {
  auto format = kUnknownFormat;
  if (const auto reader = makeReader(path); reader->open(path).empty()) format = reader->format();
  if (format.fps == 0) format.fps = kUsualRate;
  const auto name = std::filesystem::path(path).filename().string();
  return {{std::string(kFront) + path, name, CameraPosition::front, format},
          {std::string(kBack) + path, name + " (back)", CameraPosition::back, format}};
}

std::unique_ptr<PictureSource> makeFileSource(const AVCaptureDevice& device, int fps) {
  for (const auto prefix : {kFront, kBack})
    if (device.uniqueId.starts_with(prefix))
      return std::make_unique<FileSource>(device.uniqueId.substr(prefix.size()), fps);
  return nullptr;
}

}  // namespace kestrova
