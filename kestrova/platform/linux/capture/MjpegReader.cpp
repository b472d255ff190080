#include <kestrova/platform/linux/capture/MjpegReader.h>

namespace kestrova {
namespace {

/// The second byte of a marker (ITU-T T.81, annex B); the first is 0xff.
enum Marker : int {
  kTemporary = 0x01,
  kFirstRestart = 0xd0,
  kLastRestart = 0xd7,
  kStartOfImage = 0xd8,
  kEndOfImage = 0xd9,
  kStartOfScan = 0xda
};
constexpr int kEnd = -1;      // of the file
constexpr int kNoMarker = 0;  // where there must be one
/// No picture of the sizes that are read is larger; damage makes one of the whole file.
constexpr std::size_t kLargestPicture = 64u << 20;

bool isRestart(int marker) {
  return marker >= kFirstRestart && marker <= kLastRestart;
}

}  // namespace

std::string MjpegReader::open(const std::string& path) {
  if (auto error = _file.open(path); !error.empty()) return error;
  while (readJpeg()) {
    const auto size = _decoder.size(_jpeg);
    if (!size) continue;
    _format = {size->first, size->second, 0};
    rewind();
    return {};
  }
  return path + " has no JPEG picture";
}

std::shared_ptr<const VideoFrameBuffer> MjpegReader::next() {
  while (readJpeg())
    if (auto picture = _decoder.decode(_jpeg)) return picture;
  return nullptr;
}

void MjpegReader::begin() {
  _jpeg = {0xff, kStartOfImage};
}

/// The next whole picture into `_jpeg`; false at the end of the file.
bool MjpegReader::readJpeg() {
  if (!readStart()) return false;
  for (int marker = readMarker(); marker != kEnd;) {
    if (marker == kEndOfImage) return true;
    if (marker == kStartOfImage) {
      begin();  // the one before was cut off
      marker = readMarker();
      continue;
    }
    const bool standsAlone = marker == kTemporary || isRestart(marker);
    if (marker == kNoMarker || _jpeg.size() > kLargestPicture || (!standsAlone && !readSegment())) {
      if (!readStart()) return false;
      marker = readMarker();
      continue;
    }
    marker = marker == kStartOfScan ? readScan() : readMarker();
  }
  return false;
}

bool MjpegReader::readStart() {
  for (int last = 0, byte = _file.readByte(); byte >= 0; last = byte, byte = _file.readByte())
    if (last == 0xff && byte == kStartOfImage) {
      begin();
      return true;
    }
  return false;
}

int MjpegReader::readMarker() {
  int byte = _file.readByte();
  if (byte < 0) return kEnd;
  if (byte != 0xff) return kNoMarker;
  while (byte == 0xff) byte = _file.readByte();  // fill bytes
  if (byte < 0) return kEnd;
  _jpeg.push_back(0xff);
  _jpeg.push_back(static_cast<std::uint8_t>(byte));
  return byte;
}

bool MjpegReader::readSegment() {
  const int high = _file.readByte();
  const int low = _file.readByte();
  const auto length = high < 0 || low < 0 ? 0 : static_cast<std::size_t>(high << 8 | low);
  if (length < 2) return false;
  const auto start = _jpeg.size();
  _jpeg.resize(start + length);
  _jpeg[start] = static_cast<std::uint8_t>(high);
  _jpeg[start + 1] = static_cast<std::uint8_t>(low);
  return _file.readFully({_jpeg.data() + start + 2, length - 2});
}

/// The scan's coded data, and the marker that ends it.
int MjpegReader::readScan() {
  while (_jpeg.size() <= kLargestPicture) {
    int byte = _file.readByte();
    if (byte < 0) return kEnd;
    _jpeg.push_back(static_cast<std::uint8_t>(byte));
    if (byte != 0xff) continue;
    while (byte == 0xff) byte = _file.readByte();
    if (byte < 0) return kEnd;
    _jpeg.push_back(static_cast<std::uint8_t>(byte));
    if (byte != 0 && !isRestart(byte)) return byte;
  }
  return kNoMarker;
}

}  // namespace kestrova
