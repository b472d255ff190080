#pragma once

#include <kestrova/platform/VideoFrame.h>
#include <kestrova/platform/linux/capture/FramePool.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace kestrova {

/// Decodes single JPEG pictures, of any chroma sampling, into I420 of limited range (a JPEG's own
/// is full). One thread at a time.
class JpegDecoder {
public:
  JpegDecoder();
  ~JpegDecoder();
  JpegDecoder(const JpegDecoder&) = delete;
  JpegDecoder& operator=(const JpegDecoder&) = delete;

  /// Nothing for a picture that is damaged, cut off or no JPEG.
  std::shared_ptr<I420Buffer> decode(std::span<const std::uint8_t> bytes);
  /// Width and height as the picture's header tells; nothing for one that can't be read.
  std::optional<std::pair<int, int>> size(std::span<const std::uint8_t> bytes);

private:
  struct Header {
    int width;
    int height;
    int sampling;
  };
  std::optional<Header> header(std::span<const std::uint8_t> bytes);
  bool decodePlanes(std::span<const std::uint8_t> bytes, const Header& header,
                    std::uint8_t* const planes[3], const int strides[3]);
  bool decodeThrough(std::span<const std::uint8_t> bytes, const Header& header,
                     I420Buffer& picture);

  void* _decompressor;
  std::unique_ptr<FramePool> _pool;
  int _poolWidth = 0;
  int _poolHeight = 0;
  std::vector<std::uint8_t> _scratch;  // planes in the picture's own sampling
};

}  // namespace kestrova
