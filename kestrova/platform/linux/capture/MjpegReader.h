#pragma once

#include <kestrova/platform/linux/capture/File.h>
#include <kestrova/platform/linux/capture/JpegDecoder.h>
#include <kestrova/platform/linux/capture/PictureReader.h>

#include <vector>

namespace kestrova {

/// Reads JPEG pictures that stand one after the other in a file (.mjpeg). Bytes between them, and
/// damaged ones, are passed over.
class MjpegReader final : public PictureReader {
public:
  std::string open(const std::string& path) override;
  CaptureFormat format() const override { return _format; }
  std::chrono::nanoseconds period() const override { return std::chrono::nanoseconds(0); }
  std::shared_ptr<const VideoFrameBuffer> next() override;
  void rewind() override { _file.seek(0); }

private:
  bool readJpeg();
  bool readStart();
  int readMarker();
  bool readSegment();
  int readScan();
  void begin();

  File _file;
  CaptureFormat _format;
  JpegDecoder _decoder;
  std::vector<std::uint8_t> _jpeg;  // the picture being read
};

}  // namespace kestrova
