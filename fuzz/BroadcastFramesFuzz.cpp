// What a sender of the screen writes. The first byte says in which pieces it comes, and which
// bridge reads it. Whatever it holds, a read asks for no more than the largest, and a picture has a
// size that was asked for.
#include <kestrova/media/SocketConnectionFrameReader.h>

#include "Require.h"
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

using namespace kestrova;
using fuzz::require;

namespace {

class Pieces final : public InputStream {
public:
  Pieces(const std::uint8_t* data, std::size_t size, std::size_t piece)
      : _data(data), _size(size), _piece(piece) {}
  std::ptrdiff_t read(std::uint8_t* buffer, std::size_t maxLength) override {
    require(maxLength <= static_cast<std::size_t>(SocketConnectionFrameReader::largestRead),
            "a read asks for no more than the largest");
    const auto count = std::min({maxLength, _piece, _size});
    std::memcpy(buffer, _data, count);
    _data += count;
    _size -= count;
    return static_cast<std::ptrdiff_t>(count);
  }
  bool isEmpty() const { return _size == 0; }

private:
  const std::uint8_t* _data;
  std::size_t _size;
  const std::size_t _piece;
};

/// Takes anything for a picture, and looks at all of it.
class Renderer final : public PictureRenderer {
public:
  bool render(std::span<const std::uint8_t> data, PixelBuffer& buffer) override {
    unsigned sum = 0;
    for (const auto byte : data) sum += byte;
    buffer.mutablePixels()[0] = static_cast<std::uint8_t>(sum);
    return sum % 7 != 0;
  }
};

bool asksForMuch(const std::uint8_t* data, std::size_t size) {
  // A size of many digits is tried often enough by the tests.
  const std::string text(reinterpret_cast<const char*>(data), size);
  for (const char* name : {"idth:", "eight:"})
    for (auto at = text.find(name); at != std::string::npos; at = text.find(name, at + 1))
      if (std::strtoll(text.c_str() + at + std::strlen(name), nullptr, 10) > 2000) return true;
  return false;
}

void read(SocketConnectionFrameReader& reader, Pieces& stream) {
  while (!stream.isEmpty()) reader.stream(stream, StreamEvent::hasBytesAvailable, "");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0 || asksForMuch(data, size)) return 0;
  const auto& rules = data[0] & 0x80 ? olderBridge : mainBridge;
  const std::size_t pieces[] = {1, 2, 7, 100, 1000, 10'240, 65'536, 3};
  const auto copy = std::make_unique<std::uint8_t[]>(size - 1);
  std::copy(data + 1, data + size, copy.get());
  const auto reader =
      std::make_shared<SocketConnectionFrameReader>(std::make_unique<Renderer>(), rules);
  std::int64_t pictures = 0;
  reader->didCapture = [&](const std::shared_ptr<PixelBuffer>& buffer, int rotation) {
    ++pictures;
    require(buffer->width() > 0 && buffer->height() > 0 &&
                static_cast<std::int64_t>(buffer->width()) * buffer->height() <=
                    PixelBufferPool::mostPixels,
            "a picture has a size");
    require(rotation % 90 == 0 && rotation >= 0 && rotation < 360, "it is turned by right angles");
  };
  Pieces stream(copy.get(), size - 1, pieces[data[0] % std::size(pieces)]);
  read(*reader, stream);
  require(pictures <= static_cast<std::int64_t>(size / 20), "a frame has a header");
  return 0;
}
