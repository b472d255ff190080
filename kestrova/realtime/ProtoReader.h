#pragma once

#include <kestrova/realtime/Bytes.h>

#include <cstdint>
#include <exception>
#include <string>
#include <string_view>

namespace kestrova {

/// Why bytes are no message.
class ProtoDecodeError final : public std::exception {
public:
  enum class Kind { unknownWireType, truncated, malformedVarint, invalidUTF8 };

  explicit ProtoDecodeError(Kind kind, int wireType = 0);
  Kind kind() const { return _kind; }
  /// Of `unknownWireType`.
  int wireType() const { return _wireType; }
  const char* what() const noexcept override { return _text.c_str(); }

private:
  Kind _kind;
  int _wireType;
  std::string _text;
};

enum class WireType : std::uint8_t { varint = 0, fixed64 = 1, lengthDelimited = 2, fixed32 = 5 };

/// Reads the protobuf wire format out of bytes that must outlive it, as must all that it gives:
/// nothing is copied. Every operation throws `ProtoDecodeError`.
class ProtoReader {
public:
  explicit ProtoReader(ByteView bytes) : _at(bytes.data()), _end(bytes.data() + bytes.size()) {}

  struct Key {
    std::uint64_t field;
    WireType wireType;  ///< may be none of its names
  };

  bool atEnd() const { return _at == _end; }
  Key readKey() {
    const auto key = readVarint();
    return {key >> 3, static_cast<WireType>(key & 7)};
  }
  /// At most ten bytes, of which the last holds one bit.
  std::uint64_t readVarint() {
    if (_at != _end && *_at < 0x80) return *_at++;
    return readLongVarint();
  }
  ByteView readBytes();
  /// \throws ProtoDecodeError also when it isn't UTF-8
  std::string_view readText();
  void skip(WireType wireType);

private:
  std::uint64_t readLongVarint();
  ByteView take(std::uint64_t count);

  const std::uint8_t* _at;
  const std::uint8_t* _end;
};

}  // namespace kestrova
