#include <kestrova/platform/linux/capture/PictureConverter.h>
#include <kestrova/platform/linux/capture/Y4mReader.h>

#include <libyuv.h>

#include <charconv>
#include <cmath>

namespace kestrova {
namespace {

constexpr std::string_view kMagic = "YUV4MPEG2";
constexpr std::string_view kFrame = "FRAME";
constexpr std::size_t kLongestHeader = 4096;
constexpr std::size_t kLongestFrameHeader = 1024;
constexpr int kLargestSide = 8192;
constexpr double kLowestRate = 0.1;
constexpr double kHighestRate = 240;

int number(std::string_view text) {
  int value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size() ? value : 0;
}

}  // namespace

std::string Y4mReader::open(const std::string& path) {
  if (auto error = _file.open(path); !error.empty()) return error;
  const auto header = readLine(kLongestHeader);
  if (!header || !header->starts_with(kMagic)) return path + " is no YUV4MPEG2 file";
  if (const auto error = parseHeader(std::string_view(*header).substr(kMagic.size()));
      !error.empty())
    return path + ": " + error;
  _start = _file.position();
  _pool = std::make_unique<FramePool>(_width, _height);
  return {};
}

CaptureFormat Y4mReader::format() const {
  const double fps = _period.count() > 0 ? 1e9 / static_cast<double>(_period.count()) : 0;
  return {_width, _height, fps > 0 ? std::max(1, static_cast<int>(std::lround(fps))) : 0};
}

std::optional<std::string> Y4mReader::readLine(std::size_t longest) {
  std::string line;
  for (int byte = _file.readByte(); byte != '\n'; byte = _file.readByte()) {
    if (byte < 0 || line.size() == longest) return std::nullopt;
    line += static_cast<char>(byte);
  }
  return line;
}

std::string Y4mReader::parseHeader(std::string_view line) {
  while (!line.empty()) {
    const auto field = line.substr(0, line.find(' '));
    line.remove_prefix(std::min(line.size(), field.size() + 1));
    if (field.empty()) continue;
    const auto value = field.substr(1);
    switch (field.front()) {
      case 'W':
        _width = number(value);
        break;
      case 'H':
        _height = number(value);
        break;
      case 'F':
        parseRate(value);
        break;
      case 'C':
        if (auto error = parseSampling(value); !error.empty()) return error;
        break;
      case 'X':
        if (value == "COLORRANGE=FULL") _fullRange = true;
        break;
      default:  // interlacing, the shape of a pixel: shown as it is
        break;
    }
  }
  if (_width < 1 || _width > kLargestSide || _height < 1 || _height > kLargestSide)
    return "the pictures have no size, or an impossible one";
  return {};
}

std::string Y4mReader::parseSampling(std::string_view name) {
  // The others of 4:2:0 differ in where the chroma lies by less than a pixel.
  if (name == "420" || name == "420jpeg" || name == "420mpeg2" || name == "420paldv")
    _sampling = Sampling::yuv420;
  else if (name == "422")
    _sampling = Sampling::yuv422;
  else if (name == "444")
    _sampling = Sampling::yuv444;
  else if (name == "mono")
    _sampling = Sampling::grey;
  else
    return "colours stored as '" + std::string(name) + "' can't be read";
  return {};
}

void Y4mReader::parseRate(std::string_view rate) {
  const auto colon = rate.find(':');
  if (colon == std::string_view::npos) return;
  const int pictures = number(rate.substr(0, colon));
  const int seconds = number(rate.substr(colon + 1));
  if (pictures < 1 || seconds < 1) return;  // "0:0" is an unknown rate
  const double fps = static_cast<double>(pictures) / seconds;
  if (fps < kLowestRate || fps > kHighestRate) return;
  _period = std::chrono::nanoseconds(std::llround(1e9 / fps));
}

std::shared_ptr<const VideoFrameBuffer> Y4mReader::next() {
  const auto header = readLine(kLongestFrameHeader);
  if (!header || !header->starts_with(kFrame)) return nullptr;
  auto picture = _pool->take();
  if (!readPlanes(*picture)) return nullptr;
  if (_fullRange) limitRange(*picture);
  return picture;
}

bool Y4mReader::readPlanes(I420Buffer& picture) {
  const auto view = picture.i420();
  const auto luma = static_cast<std::size_t>(_width) * _height;
  const auto chroma = static_cast<std::size_t>(view.strideU) * ((_height + 1) / 2);
  if (_sampling == Sampling::yuv420)
    return _file.readFully({picture.mutableY(), luma}) &&
           _file.readFully({picture.mutableU(), chroma}) &&
           _file.readFully({picture.mutableV(), chroma});
  const int chromaStride = _sampling == Sampling::yuv422 ? view.strideU : _width;
  const auto plane = static_cast<std::size_t>(chromaStride) * _height;
  _planes.resize(_sampling == Sampling::grey ? luma : luma + 2 * plane);
  if (!_file.readFully(_planes)) return false;
  const auto* y = _planes.data();
  if (_sampling == Sampling::grey)
    return libyuv::I400ToI420(y, _width, picture.mutableY(), view.strideY, picture.mutableU(),
                              view.strideU, picture.mutableV(), view.strideV, _width, _height) == 0;
  const auto convert = _sampling == Sampling::yuv422 ? &libyuv::I422ToI420 : &libyuv::I444ToI420;
  return convert(y, _width, y + luma, chromaStride, y + luma + plane, chromaStride,
                 picture.mutableY(), view.strideY, picture.mutableU(), view.strideU,
                 picture.mutableV(), view.strideV, _width, _height) == 0;
}

}  // namespace kestrova
