#include <kestrova/platform/linux/capture/WavReader.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <string_view>

namespace kestrova {
namespace {

// The tags of a "fmt " chunk (RFC 2361).
constexpr unsigned kPcm = 0x0001;
constexpr unsigned kFloat = 0x0003;
/// The real tag is the first of the sixteen bytes of a GUID.
constexpr unsigned kExtensible = 0xfffe;
constexpr std::size_t kExtensibleTagAt = 24;
constexpr std::size_t kFormatBytes = 16;
constexpr std::size_t kLongestFormat = 64;
constexpr int kLowestRate = 8'000;
constexpr int kHighestRate = 192'000;
constexpr int kMostChannels = 64;

unsigned little16(const std::uint8_t* bytes) {
  return static_cast<unsigned>(bytes[0] | bytes[1] << 8);
}

std::uint32_t little32(const std::uint8_t* bytes) {
  return little16(bytes) | std::uint32_t{little16(bytes + 2)} << 16;
}

std::string_view tag(const std::uint8_t* bytes) {
  return {reinterpret_cast<const char*>(bytes), 4};
}

}  // namespace

std::string WavReader::open(const std::string& path) {
  if (auto error = _file.open(path); !error.empty()) return error;
  std::array<std::uint8_t, 12> start{};
  if (!_file.readFully(start) || tag(start.data()) != "RIFF" || tag(start.data() + 8) != "WAVE")
    return path + " is no WAV file";
  return readChunks(path);
}

std::string WavReader::readChunks(const std::string& path) {
  for (;;) {
    std::array<std::uint8_t, 8> head{};
    if (!_file.readFully(head)) return path + " has no sound";
    const auto start = _file.position();
    // Of a cut-off file, or one whose length was not known when it was begun, what is there.
    const auto length = std::min<std::int64_t>(little32(head.data() + 4), _file.size() - start);
    if (tag(head.data()) == "fmt ") {
      std::array<std::uint8_t, kLongestFormat> format{};
      const auto read = _file.read(std::span(format).first(static_cast<std::size_t>(
          std::clamp<std::int64_t>(length, 0, static_cast<std::int64_t>(format.size())))));
      if (auto error = parseFormat(std::span(format).first(read)); !error.empty())
        return path + ": " + error;
    } else if (tag(head.data()) == "data") {
      if (_channels == 0) return path + " has sound of an unknown format";
      _dataStart = start;
      _frames = length / (_channels * _sampleBytes);
      if (_frames < 1) return path + " has no sound";
      _nextFrame = 0;
      return _file.seek(start) ? "" : path + " can't be read";
    }
    // Chunks begin at even positions.
    if (length < 0 || !_file.seek(start + length + length % 2)) return path + " has no sound";
  }
}

std::string WavReader::parseFormat(std::span<const std::uint8_t> chunk) {
  if (chunk.size() < kFormatBytes) return "the format is cut off";
  auto kind = little16(chunk.data());
  if (kind == kExtensible && chunk.size() >= kExtensibleTagAt + 2)
    kind = little16(chunk.data() + kExtensibleTagAt);
  const auto channels = little16(chunk.data() + 2);
  const auto rate = little32(chunk.data() + 4);
  const auto frameBytes = little16(chunk.data() + 12);
  struct Row {
    unsigned kind;
    unsigned bytes;
    Encoding encoding;
  };
  static constexpr std::array kRows{Row{kPcm, 1, Encoding::pcm8}, Row{kPcm, 2, Encoding::pcm16},
                                    Row{kPcm, 3, Encoding::pcm24}, Row{kPcm, 4, Encoding::pcm32},
                                    Row{kFloat, 4, Encoding::float32}};
  if (channels < 1 || channels > kMostChannels)
    return std::to_string(channels) + " channels can't be played";
  if (rate < kLowestRate || rate > kHighestRate)
    return "a rate of " + std::to_string(rate) + " Hz can't be played";
  const auto row = std::find_if(kRows.begin(), kRows.end(), [&](const Row& candidate) {
    return candidate.kind == kind && candidate.bytes * channels == frameBytes;
  });
  if (row == kRows.end())
    return "samples of kind " + std::to_string(kind) + " with " +
           std::to_string(little16(chunk.data() + 14)) + " bits can't be played";
  _encoding = row->encoding;
  _sampleBytes = static_cast<int>(row->bytes);
  _channels = static_cast<int>(channels);
  _sampleRate = static_cast<int>(rate);
  return {};
}

bool WavReader::read(std::span<std::int16_t> samples) {
  const auto outChannels = static_cast<std::size_t>(channels());
  const auto sampleBytes = static_cast<std::size_t>(_sampleBytes);
  const auto frameBytes = sampleBytes * static_cast<std::size_t>(_channels);
  for (auto wanted = samples.size() / outChannels; wanted > 0;) {
    if (_nextFrame == _frames) {
      if (!_file.seek(_dataStart)) return false;
      _nextFrame = 0;
    }
    const auto count = std::min(wanted, static_cast<std::size_t>(_frames - _nextFrame));
    _bytes.resize(count * frameBytes);
    if (!_file.readFully(_bytes)) return false;
    for (std::size_t frame = 0; frame < count; ++frame)
      for (std::size_t channel = 0; channel < outChannels; ++channel)
        samples[frame * outChannels + channel] =
            sample(_bytes.data() + frame * frameBytes + channel * sampleBytes);
    samples = samples.subspan(count * outChannels);
    _nextFrame += static_cast<std::int64_t>(count);
    wanted -= count;
  }
  return true;
}

std::int16_t WavReader::sample(const std::uint8_t* bytes) const {
  const auto high = [](unsigned value) { return static_cast<std::int16_t>(value); };
  switch (_encoding) {
    case Encoding::pcm8:
      return static_cast<std::int16_t>((bytes[0] - 128) * 256);
    case Encoding::pcm16:
      return high(little16(bytes));
    case Encoding::pcm24:
      return high(little16(bytes + 1));
    case Encoding::pcm32:
      return high(little16(bytes + 2));
    case Encoding::float32:
      break;
  }
  const auto value = std::bit_cast<float>(little32(bytes));
  if (std::isnan(value)) return 0;
  return static_cast<std::int16_t>(std::lround(std::clamp(value, -1.0f, 1.0f) * 32767.0f));
}

}  // namespace kestrova
