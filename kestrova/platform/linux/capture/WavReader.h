#pragma once

#include <kestrova/platform/linux/capture/File.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace kestrova {

/// Reads RIFF/WAVE files: PCM of 8, 16, 24 or 32 bits, or 32-bit float; 8 to 192 kHz. Of more than
/// two channels the first two are taken. One thread at a time.
class WavReader {
public:
  /// An empty text, or what is wrong with the file.
  std::string open(const std::string& path);
  int sampleRate() const { return _sampleRate; }
  /// 1 or 2.
  int channels() const { return _channels < 2 ? 1 : 2; }
  /// Fills whole frames of `channels()` samples, and starts over at the end; false when the file
  /// can't be read any more.
  bool read(std::span<std::int16_t> samples);

private:
  enum class Encoding { pcm8, pcm16, pcm24, pcm32, float32 };
  std::string readChunks(const std::string& path);
  std::string parseFormat(std::span<const std::uint8_t> chunk);
  std::int16_t sample(const std::uint8_t* bytes) const;

  File _file;
  Encoding _encoding = Encoding::pcm16;
  int _sampleRate = 0;
  int _channels = 0;  // in the file
  int _sampleBytes = 0;
  std::int64_t _dataStart = 0;
  std::int64_t _frames = 0;  // in the file
  std::int64_t _nextFrame = 0;
  std::vector<std::uint8_t> _bytes;
};

}  // namespace kestrova
