#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <vector>

namespace recording {

/// A WAV file of 16-bit samples. Its header is put right by `finish`, so it may be of any length up
/// to 4 GiB; what comes beyond is left out.
class WavFile {
public:
  /// \throws std::runtime_error when the file can't be written
  WavFile(const std::filesystem::path& path, int sampleRate, int channels);
  ~WavFile();
  int sampleRate() const { return _sampleRate; }
  int channels() const { return _channels; }
  /// How many samples of each channel there are.
  std::uint64_t length() const { return _length; }

  /// \param samples interleaved, `count` for each channel \throws std::runtime_error
  void append(const std::int16_t* samples, std::size_t count);
  /// Silence until there are `length` samples. \throws std::runtime_error
  void padTo(std::uint64_t length);
  /// Completes the header and closes the file. \throws std::runtime_error
  void finish();

private:
  void writeHeader();

  const int _sampleRate;
  const int _channels;
  const std::filesystem::path _path;
  std::ofstream _out;
  std::uint64_t _length = 0;
};

}  // namespace recording
