#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace kestrova {

/// Planes of a picture in I420 (8 bit, 4:2:0, limited range). Chroma planes measure
/// (width + 1) / 2 by (height + 1) / 2. Strides are in bytes.
struct I420View {
  const std::uint8_t* y = nullptr;
  const std::uint8_t* u = nullptr;
  const std::uint8_t* v = nullptr;
  int strideY = 0;
  int strideU = 0;
  int strideV = 0;
  int width = 0;
  int height = 0;
};

/// Planes of a picture in NV12: as I420, but with one chroma plane in which U and V alternate, each
/// of its rows 2 * ((width + 1) / 2) bytes long.
struct NV12View {
  const std::uint8_t* y = nullptr;
  const std::uint8_t* uv = nullptr;
  int strideY = 0;
  int strideUV = 0;
  int width = 0;
  int height = 0;
};

/// Pixels of four bytes: blue, green, red, and alpha, which is ignored.
struct BGRAView {
  const std::uint8_t* pixels = nullptr;
  int stride = 0;
  int width = 0;
  int height = 0;
};

/// Whether a view has all its planes, a size above 0, and rows that fit into its strides.
bool isComplete(const I420View& view);
bool isComplete(const NV12View& view);
bool isComplete(const BGRAView& view);

enum class PixelFormat { i420, nv12, bgra };
constexpr std::string_view text(PixelFormat format) {
  return format == PixelFormat::i420 ? "i420" : format == PixelFormat::nv12 ? "nv12" : "bgra";
}

/// Pixels behind a `VideoFrame`. Immutable once shared; thread-safe to read. Views are valid while
/// the buffer lives.
class VideoFrameBuffer {
public:
  virtual ~VideoFrameBuffer() = default;
  /// How the pixels lie in memory; `bgra` never reaches a sink.
  virtual PixelFormat format() const { return PixelFormat::i420; }
  /// NV12 is converted on the first call. A buffer of BGRA gives no planes.
  virtual I420View i420() const = 0;
  /// Without planes unless the format is `nv12`.
  virtual NV12View nv12() const { return {}; }
  /// Without pixels unless the format is `bgra`.
  virtual BGRAView bgra() const { return {}; }
};

/// Pixels in memory of our own, for sources that draw or decode pictures.
class I420Buffer final : public VideoFrameBuffer {
public:
  I420Buffer(int width, int height);
  I420View i420() const override;
  std::uint8_t* mutableY() { return _bytes.data(); }
  std::uint8_t* mutableU() { return _bytes.data() + _offsetU; }
  std::uint8_t* mutableV() { return _bytes.data() + _offsetV; }

private:
  int _width;
  int _height;
  std::size_t _offsetU;
  std::size_t _offsetV;
  std::vector<std::uint8_t> _bytes;
};

/// One picture. `timestampUs` is the capture time in microseconds on the monotonic clock; for
/// received pictures it is when the picture is due on the screen. `rotation` is clockwise degrees.
struct VideoFrame {
  std::shared_ptr<const VideoFrameBuffer> buffer;
  std::int64_t timestampUs = 0;
  int rotation = 0;
};

/// Gets the pictures of a track, on a thread of the engine. Must return quickly and may keep the
/// frame's buffer.
class VideoSink {
public:
  virtual ~VideoSink() = default;
  virtual void onFrame(const VideoFrame& frame) = 0;
};

/// 10 ms of interleaved 16-bit samples: `frames` samples for each of `channels`.
struct AudioData {
  const std::int16_t* samples = nullptr;
  int sampleRate = 0;
  int channels = 0;
  int frames = 0;
};

/// Gets the samples of a track every 10 ms, on a thread of the engine. The samples are valid for
/// the call only.
class AudioSink {
public:
  virtual ~AudioSink() = default;
  virtual void onData(const AudioData& data) = 0;
};

}  // namespace kestrova
