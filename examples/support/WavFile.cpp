#include "WavFile.h"

#include <algorithm>
#include <array>
#include <limits>
#include <stdexcept>
#include <string>

namespace recording {
namespace {

constexpr std::uint32_t headerBytes = 44;
constexpr std::uint64_t mostBytes = std::numeric_limits<std::uint32_t>::max() - headerBytes;

void put(std::string& out, std::uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out += static_cast<char>(value >> (8 * i) & 0xFF);
}

}  // namespace

WavFile::WavFile(const std::filesystem::path& path, int sampleRate, int channels)
    : _sampleRate(sampleRate),
      _channels(channels),
      _path(path),
      _out(path, std::ios::binary | std::ios::trunc) {
  writeHeader();
}

WavFile::~WavFile() {
  try {
    finish();
  } catch (const std::exception&) {  // told by whoever calls finish() itself
  }
}

void WavFile::append(const std::int16_t* samples, std::size_t count) {
  const auto frameBytes = static_cast<std::uint64_t>(_channels) * 2;
  count = std::min<std::uint64_t>(count, mostBytes / frameBytes - _length);
  std::string bytes;
  bytes.reserve(count * frameBytes);
  for (std::size_t i = 0; i < count * static_cast<std::size_t>(_channels); ++i)
    put(bytes, static_cast<std::uint16_t>(samples[i]), 2);
  _out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!_out) throw std::runtime_error("can't write " + _path.string());
  _length += count;
}

void WavFile::padTo(std::uint64_t length) {
  static constexpr std::array<std::int16_t, 9600> silence{};
  const auto most = silence.size() / static_cast<std::size_t>(_channels);
  while (_length < length) {
    const auto before = _length;
    append(silence.data(), std::min<std::uint64_t>(length - _length, most));
    if (_length == before) return;  // the file is full
  }
}

void WavFile::finish() {
  if (!_out.is_open()) return;
  _out.seekp(0);
  writeHeader();
  _out.close();
  if (!_out) throw std::runtime_error("can't write " + _path.string());
}

void WavFile::writeHeader() {
  const auto frameBytes = static_cast<std::uint64_t>(_channels) * 2;
  const auto dataBytes = _length * frameBytes;
  std::string header = "RIFF";
  put(header, headerBytes - 8 + dataBytes, 4);
  header += "WAVEfmt ";
  put(header, 16, 4);
  put(header, 1, 2);  // PCM
  put(header, static_cast<std::uint64_t>(_channels), 2);
  put(header, static_cast<std::uint64_t>(_sampleRate), 4);
  put(header, static_cast<std::uint64_t>(_sampleRate) * frameBytes, 4);
  put(header, frameBytes, 2);
  put(header, 16, 2);
  header += "data";
  put(header, dataBytes, 4);
  _out.write(header.data(), headerBytes);
  if (!_out) throw std::runtime_error("can't write " + _path.string());
}

}  // namespace recording
