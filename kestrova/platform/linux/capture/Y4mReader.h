#pragma once

#include <kestrova/platform/linux/capture/File.h>
#include <kestrova/platform/linux/capture/FramePool.h>
#include <kestrova/platform/linux/capture/PictureReader.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova {

/// Reads YUV4MPEG2 (.y4m): 8 bits in 4:2:0, 4:2:2, 4:4:4 or grey.
class Y4mReader final : public PictureReader {
public:
  std::string open(const std::string& path) override;
  CaptureFormat format() const override;
  std::chrono::nanoseconds period() const override { return _period; }
  std::shared_ptr<const VideoFrameBuffer> next() override;
  void rewind() override { _file.seek(_start); }

private:
  enum class Sampling { yuv420, yuv422, yuv444, grey };
  std::optional<std::string> readLine(std::size_t longest);
  std::string parseHeader(std::string_view line);
  std::string parseSampling(std::string_view name);
  void parseRate(std::string_view rate);
  bool readPlanes(I420Buffer& picture);

  File _file;
  std::int64_t _start = 0;  // of the first picture
  int _width = 0;
  int _height = 0;
  std::chrono::nanoseconds _period{0};
  Sampling _sampling = Sampling::yuv420;
  bool _fullRange = false;
  std::unique_ptr<FramePool> _pool;
  std::vector<std::uint8_t> _planes;  // those of a picture that isn't 4:2:0
};

}  // namespace kestrova
