#pragma once

#include <kestrova/realtime/Bytes.h>

#include <cstddef>
#include <cstdint>

namespace kestrova {

/// Writes the protobuf wire format: varints, and fields with a length before them.
class ProtoWriter {
public:
  /// \param expectedBytes what will be written, so that the memory is taken once; a varint asks for
  /// the room of the longest
  explicit ProtoWriter(std::size_t expectedBytes = 0) : _bytes(expectedBytes + mostVarintBytes) {}

  /// Seven bits a byte, the low ones first.
  void writeVarint(std::uint64_t value) {
    auto* at = room(mostVarintBytes);
    while (value >= 0x80) {
      *at++ = static_cast<std::uint8_t>(value) | 0x80;
      value >>= 7;
    }
    *at++ = static_cast<std::uint8_t>(value);
    _used = static_cast<std::size_t>(at - _bytes.data());
  }
  /// The field's key, the length and the data, also when there is none. A field number of more than
  /// 60 bits stops the process.
  void writeBytes(std::uint64_t field, ByteView data);
  /// The same without the data, which the caller writes next.
  void writeLength(std::uint64_t field, std::size_t length);

  /// What was written; the writer is empty then.
  Bytes take();

private:
  static constexpr std::size_t mostVarintBytes = 10;

  /// Where the next `count` bytes go.
  std::uint8_t* room(std::size_t count) {
    if (_bytes.size() - _used < count) grow(count);
    return _bytes.data() + _used;
  }
  void grow(std::size_t count);

  Bytes _bytes;
  std::size_t _used = 0;
};

/// How many bytes `writeVarint` takes.
constexpr std::size_t varintSize(std::uint64_t value) {
  std::size_t bytes = 1;
  for (; value >= 0x80; value >>= 7) ++bytes;
  return bytes;
}

}  // namespace kestrova
